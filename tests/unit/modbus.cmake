# The Modbus driver plug-in against libmodbus as the independent peer.
find_package(PkgConfig REQUIRED)
pkg_check_modules(LIBMODBUS REQUIRED IMPORTED_TARGET libmodbus)

lumbra_add_test(modbus_driver_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/modbus_driver_test.cpp
  LIBS PkgConfig::LIBMODBUS ${CMAKE_DL_LIBS} Threads::Threads)
target_include_directories(modbus_driver_test PRIVATE ${CMAKE_SOURCE_DIR}/include)
target_compile_definitions(modbus_driver_test PRIVATE
  MODBUS_RTU_SO="$<TARGET_FILE:modbus_rtu>"
  MODBUS_TCP_SO="$<TARGET_FILE:modbus_tcp>")
add_dependencies(modbus_driver_test modbus_rtu modbus_tcp)
