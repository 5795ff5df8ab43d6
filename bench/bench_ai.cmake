# Realtime audio framing cost (up: PCM to append frame; down: delta text to PCM), against
# Node.js in the same run when `node` is on the PATH.
add_executable(bench_ai ${CMAKE_CURRENT_LIST_DIR}/bench_ai.cpp)
target_compile_definitions(bench_ai PRIVATE
    VEMIRA_BENCH_AI_JS="${CMAKE_CURRENT_LIST_DIR}/bench_ai.js")
target_link_libraries(bench_ai PRIVATE vemira_options vemira_ai)
