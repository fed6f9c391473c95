# A cyclic script against a Modbus TCP slave behind the link manager.
lumbra_add_test(macro_e2e_test SOURCES macro_e2e_test.cpp LIBS lumbra_Macro)
target_compile_definitions(macro_e2e_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>")
add_dependencies(macro_e2e_test modbus_tcp)
