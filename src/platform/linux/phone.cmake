# The phone application's accessibility tree. Placeholder: turn into a STATIC library.
add_library(vemira_platform_phone INTERFACE)
target_link_libraries(vemira_platform_phone INTERFACE vemira_phone)
