# Audio path cost per second of audio: the capture block (48 kHz stereo float → wire with
# limiter and peaks) and the output chain (equaliser, limiter, mix, device rate, measure).
if(TARGET vemira_test_audio_fakes)
    add_executable(bench_audio ${CMAKE_CURRENT_LIST_DIR}/bench_audio.cpp)
    target_link_libraries(bench_audio PRIVATE vemira_options vemira_audio vemira_test_audio_fakes)
endif()
