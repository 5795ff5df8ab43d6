# The workspace (open an address, reveal a file), the will-sleep notification and the
# microphone permission, through AppKit and AVFoundation; the after-call notification through
# UserNotifications; the login item through ServiceManagement.
add_library(vemira_platform_system STATIC ${CMAKE_CURRENT_LIST_DIR}/system/MacSystemServices.mm
    ${CMAKE_CURRENT_LIST_DIR}/system/MacUserNotifier.mm
    ${CMAKE_CURRENT_LIST_DIR}/system/MacLoginItem.mm)
target_link_libraries(vemira_platform_system PUBLIC vemira_core vemira_notify Qt6::Core
    PRIVATE "-framework AppKit" "-framework AVFoundation" "-framework UserNotifications"
    "-framework ServiceManagement")
