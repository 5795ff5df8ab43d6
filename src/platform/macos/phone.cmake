# The phone application's accessibility tree, through AXUIElement and NSWorkspace.
add_library(vemira_platform_phone STATIC ${CMAKE_CURRENT_LIST_DIR}/phone/AXAccessibility.mm)
target_link_libraries(vemira_platform_phone PUBLIC vemira_phone Qt6::Core
    PRIVATE "-framework AppKit" "-framework ApplicationServices")
