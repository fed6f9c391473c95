add_executable(bench_macro_soak EXCLUDE_FROM_ALL ${CMAKE_CURRENT_LIST_DIR}/macro_soak_bench.cpp)
target_link_libraries(bench_macro_soak PRIVATE lumbra_Macro lumbra_testsupport)
target_compile_definitions(bench_macro_soak PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>")
add_dependencies(bench_macro_soak modbus_tcp)
add_dependencies(lumbra_benchmarks bench_macro_soak)

# The first getdata of an address a script names at run time, on a long poll cycle.
add_executable(bench_first_read EXCLUDE_FROM_ALL ${CMAKE_CURRENT_LIST_DIR}/first_read_bench.cpp)
target_link_libraries(bench_first_read PRIVATE lumbra_device_comm lumbra_testsupport)
target_compile_definitions(bench_first_read PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>")
add_dependencies(bench_first_read modbus_tcp)
add_dependencies(lumbra_benchmarks bench_first_read)
