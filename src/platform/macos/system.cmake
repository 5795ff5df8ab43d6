# Sleep notification, workspace (open, reveal), clipboard. Placeholder: turn into a STATIC library.
add_library(vemira_platform_system INTERFACE)
target_link_libraries(vemira_platform_system INTERFACE vemira_core)
