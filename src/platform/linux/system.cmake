# Sleep notification (logind over the system bus), the desktop workspace (xdg-open, the file
# manager's D-Bus interface) and the XDG autostart entry.
add_library(vemira_platform_system STATIC
    ${CMAKE_CURRENT_LIST_DIR}/system/LogindSleepNotifier.h
    ${CMAKE_CURRENT_LIST_DIR}/system/LogindSleepNotifier.cpp
    ${CMAKE_CURRENT_LIST_DIR}/system/LinuxWorkspace.h
    ${CMAKE_CURRENT_LIST_DIR}/system/LinuxWorkspace.cpp
    ${CMAKE_CURRENT_LIST_DIR}/system/FreedesktopNotifier.h
    ${CMAKE_CURRENT_LIST_DIR}/system/FreedesktopNotifier.cpp
    ${CMAKE_CURRENT_LIST_DIR}/system/XdgAutostart.cpp)
target_compile_definitions(vemira_platform_system PRIVATE VEMIRA_APP_ID="${VEMIRA_APP_ID}")
target_link_libraries(vemira_platform_system PRIVATE vemira_records)
target_link_libraries(vemira_platform_system PUBLIC vemira_core Qt6::Core Qt6::DBus)
# The after-call desktop notification (freedesktop Notifications over the session bus).
target_link_libraries(vemira_platform_system PUBLIC vemira_notify)
