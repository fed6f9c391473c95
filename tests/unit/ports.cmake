lumbra_add_test(serialport_test
  SOURCES serialport_test.cpp serialposix_test.cpp
  LIBS lumbra_device_comm)

lumbra_add_test(netports_test SOURCES netports_test.cpp LIBS lumbra_device_comm)
lumbra_add_test(iec104splitter_test SOURCES iec104splitter_test.cpp LIBS lumbra_device_comm)
