lumbra_add_test(linkthread_test SOURCES linkthread_test.cpp LIBS lumbra_device_comm)
target_compile_definitions(linkthread_test PRIVATE SCRIPTED_DRIVER="$<TARGET_FILE:scripted_driver>")
add_dependencies(linkthread_test scripted_driver)

lumbra_add_test(linkmanager_test SOURCES linkmanager_test.cpp LIBS lumbra_device_comm)
target_compile_definitions(linkmanager_test PRIVATE SCRIPTED_DRIVER="$<TARGET_FILE:scripted_driver>"
  SCRIPTED_DRIVER_ABI1="$<TARGET_FILE:scripted_driver_abi1>")
add_dependencies(linkmanager_test scripted_driver scripted_driver_abi1)

lumbra_add_test(field_test SOURCES field_test.cpp LIBS lumbra_device_comm)
find_package(PkgConfig REQUIRED)
pkg_check_modules(FIELD_TEST_MODBUS REQUIRED libmodbus)
target_include_directories(field_test PRIVATE ${FIELD_TEST_MODBUS_INCLUDE_DIRS})
target_link_libraries(field_test PRIVATE ${FIELD_TEST_MODBUS_LIBRARIES})
target_compile_definitions(field_test PRIVATE MODBUS_TCP_DRIVER="$<TARGET_FILE:modbus_tcp>"
  MODBUS_RTU_DRIVER="$<TARGET_FILE:modbus_rtu>" LUMBRA_PLCSIM_BINARY="$<TARGET_FILE:lumbra-plcsim>")
add_dependencies(field_test modbus_tcp modbus_rtu lumbra-plcsim)
