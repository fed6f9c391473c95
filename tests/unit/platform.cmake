# lumbra-platform's parts: the store against SQLite and a throw-away
# PostgreSQL, and what the MQTT side refuses.
if(TARGET lumbra_platform_core)
  lumbra_add_test(platform_store_test SOURCES platform_store_test.cpp LIBS lumbra_platform_core)
  lumbra_add_test(platform_ingest_test SOURCES platform_ingest_test.cpp LIBS lumbra_platform_core)
endif()
