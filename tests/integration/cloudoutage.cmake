# The cloud path through an agent and a broker outage, end to end.
if(TARGET lumbra-agent AND TARGET lumbra-plcsim)
  lumbra_add_test(cloud_outage_test SOURCES cloud_outage_test.cpp LIBS lumbra_SQLiteDB
    PROPERTIES RESOURCE_LOCK lumbra TIMEOUT 300)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(OUTAGE_MODBUS REQUIRED libmodbus)
  target_include_directories(cloud_outage_test PRIVATE ${OUTAGE_MODBUS_INCLUDE_DIRS})
  target_link_libraries(cloud_outage_test PRIVATE ${OUTAGE_MODBUS_LIBRARIES})
  target_compile_definitions(cloud_outage_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>"
    LUMBRA_AGENT_BINARY="$<TARGET_FILE:lumbra-agent>" LUMBRA_PLCSIM_BINARY="$<TARGET_FILE:lumbra-plcsim>")
  add_dependencies(cloud_outage_test modbus_tcp lumbra-agent lumbra-plcsim)
endif()
