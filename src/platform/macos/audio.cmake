# Device lists, system defaults and device I/O on Core Audio: AUHAL units on chosen devices,
# the voice-processing unit (echo cancellation, automatic gain) for conversations on the Mac.
include(${CMAKE_SOURCE_DIR}/src/audio/probes/probes.cmake)
add_library(vemira_platform_audio STATIC
    audio/CoreAudioProperties.mm
    audio/CoreAudioSystem.mm
    audio/CoreAudioEngine.mm)
target_link_libraries(vemira_platform_audio PUBLIC vemira_audio vemira_audio_probes vemira_options
    "-framework CoreAudio" "-framework AudioToolbox" "-framework CoreFoundation")
