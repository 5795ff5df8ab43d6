# The route and microphone probes: portable, on top of the bridge and the device I/O.
# Included by each platform's audio.cmake, whose library links it for the application.
add_library(vemira_audio_probes STATIC
    ${CMAKE_SOURCE_DIR}/src/audio/probes/AudioRouteProbe.cpp
    ${CMAKE_SOURCE_DIR}/src/audio/probes/MicrophoneProbe.cpp)
target_link_libraries(vemira_audio_probes PUBLIC vemira_audio vemira_options Qt6::Core)
