# Added latency of the call audio path each way on a private PulseAudio daemon.
if(TARGET vemira_test_support AND TARGET vemira_platform_audio AND UNIX AND NOT APPLE)
    add_executable(bench_platform_audio ${CMAKE_CURRENT_LIST_DIR}/bench_platform_audio.cpp)
    target_link_libraries(bench_platform_audio PRIVATE vemira_options vemira_platform_audio
        vemira_test_support)
endif()
