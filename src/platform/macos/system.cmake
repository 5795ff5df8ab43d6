# The workspace (open an address, reveal a file), the will-sleep notification and the
# microphone permission, through AppKit and AVFoundation.
add_library(vemira_platform_system STATIC ${CMAKE_CURRENT_LIST_DIR}/system/MacSystemServices.mm)
target_link_libraries(vemira_platform_system PUBLIC vemira_core Qt6::Core
    PRIVATE "-framework AppKit" "-framework AVFoundation")
