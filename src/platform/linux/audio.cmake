# Device lists, system defaults and device I/O on PulseAudio (also pipewire-pulse), with
# SpeexDSP's echo canceller for conversations on the computer itself.
include(${CMAKE_SOURCE_DIR}/src/audio/probes/probes.cmake)
pkg_check_modules(PULSE REQUIRED IMPORTED_TARGET libpulse)
pkg_check_modules(VEMIRA_PA_SPEEXDSP REQUIRED IMPORTED_TARGET speexdsp)
add_library(vemira_platform_audio STATIC
    audio/EchoCanceller.cpp
    audio/PulseAudioSystem.cpp
    audio/PulseConnection.cpp
    audio/PulseDeviceIO.cpp
    audio/PulseDeviceTable.cpp
    audio/PulseEngine.cpp
    audio/PulseStreamRouter.cpp
    audio/PulseVirtualDevices.cpp)
target_link_libraries(vemira_platform_audio PUBLIC vemira_audio vemira_audio_probes vemira_options
    PkgConfig::PULSE PkgConfig::VEMIRA_PA_SPEEXDSP)
