# The phone application's accessibility tree, through AT-SPI (libatspi).
pkg_check_modules(ATSPI REQUIRED IMPORTED_TARGET atspi-2 gobject-2.0 glib-2.0)
add_library(vemira_platform_phone STATIC
    ${CMAKE_CURRENT_LIST_DIR}/phone/AtspiAccessibility.h
    ${CMAKE_CURRENT_LIST_DIR}/phone/AtspiAccessibility.cpp
    ${CMAKE_CURRENT_LIST_DIR}/phone/AtspiChangeWatch.h)
target_link_libraries(vemira_platform_phone PUBLIC vemira_phone Qt6::Core Qt6::DBus
    PRIVATE PkgConfig::ATSPI)
