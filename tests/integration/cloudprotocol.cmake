# The cloud protocol against a platform simulator on a nanomsg PAIR socket.
lumbra_add_test(cloud_protocol_test SOURCES cloud_protocol_test.cpp
  LIBS lumbra_IotConfig lumbra_IotToMqttComm lumbra_Macro)
