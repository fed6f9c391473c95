# The running gateway with scripts, against a Modbus TCP slave and an agent peer.
lumbra_add_test(macro_e2e_test SOURCES macro_e2e_test.cpp PROPERTIES RESOURCE_LOCK lumbra)
target_compile_definitions(macro_e2e_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>"
  MODBUS_RTU_DRIVER="$<TARGET_FILE:modbus_rtu>")
add_dependencies(macro_e2e_test modbus_tcp modbus_rtu Lumbra)
