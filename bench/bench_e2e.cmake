# The whole call's figures: added audio latency each way and Vemira's CPU share during the
# call, over a few runs of `vemira demo` (each about 40 s).
if(TARGET vemira AND TARGET vemira-test-softphone AND TARGET vemira-realtime-standin)
    add_executable(bench_e2e ${CMAKE_CURRENT_LIST_DIR}/bench_e2e.cpp)
    target_link_libraries(bench_e2e PRIVATE vemira_options Qt6::Core)
    add_dependencies(bench_e2e vemira vemira-test-softphone vemira-realtime-standin)
    target_compile_definitions(bench_e2e PRIVATE
        VEMIRA_E2E_CLI="$<TARGET_FILE:vemira>"
        VEMIRA_E2E_SOFTPHONE="$<TARGET_FILE:vemira-test-softphone>"
        VEMIRA_E2E_STANDIN="$<TARGET_FILE:vemira-realtime-standin>"
        VEMIRA_E2E_PULSE_SCRIPT="${CMAKE_SOURCE_DIR}/scripts/env/pulseaudio.sh")
endif()
