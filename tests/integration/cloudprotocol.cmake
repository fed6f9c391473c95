# The cloud protocol against a platform simulator on a nanomsg PAIR socket.
lumbra_add_test(cloud_protocol_test SOURCES cloud_protocol_test.cpp
  LIBS lumbra_IotConfig lumbra_IotToMqttComm lumbra_Macro)
# The running gateway configured from an empty box by the platform simulator.
lumbra_add_test(cloud_sync_e2e_test SOURCES cloud_sync_e2e_test.cpp PROPERTIES RESOURCE_LOCK lumbra)
target_compile_definitions(cloud_sync_e2e_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>")
add_dependencies(cloud_sync_e2e_test modbus_tcp Lumbra)
