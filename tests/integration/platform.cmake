# lumbra-platform as a process: real mosquitto, a throw-away PostgreSQL,
# gateways that resend until acknowledged, the real gateway end to end.
if(TARGET lumbra-platform)
  lumbra_add_test(platform_delivery_test SOURCES platform_delivery_test.cpp LIBS lumbra_platform_core
    PROPERTIES TIMEOUT 300)
  lumbra_add_test(platform_api_test SOURCES platform_api_test.cpp)
  foreach(t platform_delivery_test platform_api_test)
    target_compile_definitions(${t} PRIVATE LUMBRA_PLATFORM_BINARY="$<TARGET_FILE:lumbra-platform>")
    add_dependencies(${t} lumbra-platform)
  endforeach()
endif()

if(TARGET lumbra-platform AND TARGET lumbra-agent AND TARGET lumbra-plcsim)
  lumbra_add_test(platform_e2e_test SOURCES platform_e2e_test.cpp LIBS lumbra_SQLiteDB
    PROPERTIES RESOURCE_LOCK lumbra TIMEOUT 300)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(PLATFORM_E2E_MODBUS REQUIRED libmodbus)
  target_include_directories(platform_e2e_test PRIVATE ${PLATFORM_E2E_MODBUS_INCLUDE_DIRS})
  target_link_libraries(platform_e2e_test PRIVATE ${PLATFORM_E2E_MODBUS_LIBRARIES})
  target_compile_definitions(platform_e2e_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>"
    LUMBRA_AGENT_BINARY="$<TARGET_FILE:lumbra-agent>" LUMBRA_PLCSIM_BINARY="$<TARGET_FILE:lumbra-plcsim>"
    LUMBRA_PLATFORM_BINARY="$<TARGET_FILE:lumbra-platform>")
  add_dependencies(platform_e2e_test modbus_tcp lumbra-agent lumbra-plcsim lumbra-platform Lumbra)
endif()
