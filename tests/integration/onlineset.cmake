# The cloud's online edits and device writes, in process, against a libmodbus slave and an agent peer.
lumbra_add_test(online_setters_test SOURCES online_setters_test.cpp LIBS lumbra_IotToMqttComm)
target_compile_definitions(online_setters_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>")
add_dependencies(online_setters_test modbus_tcp)
