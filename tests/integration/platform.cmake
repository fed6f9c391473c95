# lumbra-platform as a process: real mosquitto, a throw-away PostgreSQL,
# gateways that resend until acknowledged, the real gateway end to end.
if(TARGET lumbra-platform)
  lumbra_add_test(platform_delivery_test SOURCES platform_delivery_test.cpp LIBS lumbra_platform_core
    PROPERTIES TIMEOUT 300)
  target_compile_definitions(platform_delivery_test PRIVATE LUMBRA_PLATFORM_BINARY="$<TARGET_FILE:lumbra-platform>")
  add_dependencies(platform_delivery_test lumbra-platform)
endif()
