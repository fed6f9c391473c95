# Forwarding to the user's own brokers: real mosquittos that start late, hang, die or speak
# only TLS, a libmodbus slave, an agent peer.
lumbra_add_test(mqtt_forward_test SOURCES mqtt_forward_test.cpp LIBS lumbra_MqttCliManager lumbra_AlarmData)
target_compile_definitions(mqtt_forward_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>")
add_dependencies(mqtt_forward_test modbus_tcp)
