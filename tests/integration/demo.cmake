# `make demo`'s processes, started without a terminal: broker, platform, simulator, agent, gateway.
if(TARGET lumbra-agent AND TARGET lumbra-plcsim AND TARGET lumbra-platform)
  lumbra_add_test(demo_test SOURCES demo_test.cpp LIBS lumbra_SQLiteDB PROPERTIES RESOURCE_LOCK lumbra)
  target_compile_definitions(demo_test PRIVATE LUMBRA_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
    LUMBRA_BUILD_DIR="${CMAKE_BINARY_DIR}")
  add_dependencies(demo_test lumbra-agent lumbra-plcsim lumbra-platform modbus_tcp modbus_rtu)
endif()
