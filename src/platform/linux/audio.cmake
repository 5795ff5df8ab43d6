# Device lists, system defaults and device I/O. Placeholder: turn into a STATIC library.
add_library(vemira_platform_audio INTERFACE)
target_link_libraries(vemira_platform_audio INTERFACE vemira_audio)
