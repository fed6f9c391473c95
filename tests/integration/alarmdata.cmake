# The alarm service against a Modbus TCP slave, local registers and an agent peer.
lumbra_add_test(alarmdata_test SOURCES alarmdata_test.cpp LIBS lumbra_AlarmData lumbra_IotToMqttComm)
target_compile_definitions(alarmdata_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>")
add_dependencies(alarmdata_test modbus_tcp)
