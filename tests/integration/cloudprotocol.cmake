# The cloud protocol against a platform simulator on a nanomsg PAIR socket, and the
# cloud's online edits and device writes against a libmodbus slave and an agent peer.
lumbra_add_test(cloud_protocol_test SOURCES cloud_protocol_test.cpp
  LIBS lumbra_IotConfig lumbra_IotToMqttComm lumbra_Macro)
target_compile_definitions(cloud_protocol_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>")
add_dependencies(cloud_protocol_test modbus_tcp)
