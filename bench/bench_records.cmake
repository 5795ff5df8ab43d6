# History load/save against a plain file copy, and dossier search over a large history.
add_executable(bench_records ${CMAKE_CURRENT_LIST_DIR}/bench_records.cpp)
target_link_libraries(bench_records PRIVATE vemira_options vemira_records vemira_core)
