# lumbra-agent as a program: against a real mosquitto, a nanomsg peer playing
# the gateway, and the real gateway under its supervision.
find_package(ZLIB REQUIRED)
lumbra_add_test(agent_bridge_test SOURCES agent_bridge_test.cpp LIBS ZLIB::ZLIB)
lumbra_add_test(agent_gateway_test SOURCES agent_gateway_test.cpp LIBS lumbra_SQLiteDB PROPERTIES RESOURCE_LOCK lumbra)
foreach(agent_test agent_bridge_test agent_gateway_test)
  target_compile_definitions(${agent_test} PRIVATE LUMBRA_AGENT_BINARY="$<TARGET_FILE:lumbra-agent>")
  add_dependencies(${agent_test} lumbra-agent)
endforeach()
target_compile_definitions(agent_gateway_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>")
add_dependencies(agent_gateway_test modbus_tcp Lumbra)
