# Audio path cost per second of audio: the capture block (48 kHz stereo float → wire with
# limiter and peaks) and the output chain (equaliser, limiter, mix, device rate, measure).
find_package(Threads REQUIRED)
add_executable(bench_audio
    ${CMAKE_CURRENT_LIST_DIR}/bench_audio.cpp
    ${CMAKE_SOURCE_DIR}/tests/audio/fakes/FakeAudioDevices.cpp)
target_include_directories(bench_audio PRIVATE ${CMAKE_SOURCE_DIR}/tests)
target_link_libraries(bench_audio PRIVATE vemira_options vemira_audio Threads::Threads)
