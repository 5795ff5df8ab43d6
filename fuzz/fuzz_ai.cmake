# Realtime client event handling under hostile server traffic.
vemira_add_fuzzer(fuzz_ai ${CMAKE_CURRENT_LIST_DIR}/fuzz_ai.cpp vemira_ai)
