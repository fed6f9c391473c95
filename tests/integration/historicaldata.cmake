# The history service against a libmodbus slave and a nanomsg agent peer, in process.
lumbra_add_test(historicaldata_test SOURCES historicaldata_test.cpp LIBS lumbra_HistoricalData lumbra_IotToMqttComm)
target_compile_definitions(historicaldata_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>")
add_dependencies(historicaldata_test modbus_tcp)
