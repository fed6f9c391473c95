# Link configuration, link manager, driver loading and the link thread.
set(TEST_DRIVER_DEFS
  SCRIPTED_DRIVER="$<TARGET_FILE:scripted_driver>"
  PARTIAL_DRIVER="$<TARGET_FILE:partial_driver>")

lumbra_add_test(linkconfig_test SOURCES linkconfig_test.cpp LIBS lumbra_device_comm)
lumbra_add_test(clinkdriver_test SOURCES clinkdriver_test.cpp LIBS lumbra_device_comm)
target_compile_definitions(clinkdriver_test PRIVATE ${TEST_DRIVER_DEFS})
add_dependencies(clinkdriver_test scripted_driver partial_driver)
