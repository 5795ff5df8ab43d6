# History decoding must never crash, whatever the bytes of history.json.
vemira_add_fuzzer(fuzz_records ${CMAKE_CURRENT_LIST_DIR}/fuzz_records.cpp vemira_records)
