# Call search cost: fake trees with slow requests, and one idle scan of a real AT-SPI window.
if(TARGET vemira_test_phone_fakes)
    add_executable(bench_phone ${CMAKE_CURRENT_LIST_DIR}/bench_phone.cpp)
    target_link_libraries(bench_phone PRIVATE vemira_options vemira_test_phone_fakes)
    if(TARGET vemira-test-softphone AND TARGET vemira_platform_phone)
        target_link_libraries(bench_phone PRIVATE vemira_platform_phone)
        add_dependencies(bench_phone vemira-test-softphone)
        target_compile_definitions(bench_phone PRIVATE
            VEMIRA_RINGING_PHONE="$<TARGET_FILE:vemira-test-softphone>"
            VEMIRA_DESKTOP_SESSION="${CMAKE_SOURCE_DIR}/scripts/env/desktop-session.sh")
    endif()
    if(TARGET vemira_test_support AND TARGET tst_e2e_realphone_twinkle)
        target_link_libraries(bench_phone PRIVATE vemira_test_support vemira_demo)
        target_compile_definitions(bench_phone PRIVATE VEMIRA_REAL_SOFTPHONES
            VEMIRA_SCRIPTS="${CMAKE_SOURCE_DIR}/scripts/env")
        # bench_phone --app: the idle desktop application's CPU and memory.
        if(TARGET vemira-app AND TARGET vemira-realtime-standin)
            target_link_libraries(bench_phone PRIVATE vemira_records vemira_demo_script)
            add_dependencies(bench_phone vemira-app vemira-realtime-standin)
            target_compile_definitions(bench_phone PRIVATE VEMIRA_IDLE_APP
                VEMIRA_APP="$<TARGET_FILE:vemira-app>"
                VEMIRA_STANDIN="$<TARGET_FILE:vemira-realtime-standin>")
        endif()
    endif()
endif()
