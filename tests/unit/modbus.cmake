# The Modbus driver plug-in against libmodbus (through the shared slave) as the
# independent peer, and against a device inside the test for exact faults.
lumbra_add_test(modbus_driver_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/modbus_driver_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/modbus_framing_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/modbus_values_test.cpp
  LIBS ${CMAKE_DL_LIBS})
target_include_directories(modbus_driver_test PRIVATE ${CMAKE_SOURCE_DIR}/include)
target_compile_definitions(modbus_driver_test PRIVATE
  MODBUS_RTU_SO="$<TARGET_FILE:modbus_rtu>"
  MODBUS_TCP_SO="$<TARGET_FILE:modbus_tcp>")
add_dependencies(modbus_driver_test modbus_rtu modbus_tcp)
