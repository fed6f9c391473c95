# The bridge to the local MQTT agent, against a real nanomsg peer.
lumbra_add_test(iottomqttcomm_test SOURCES iottomqttcomm_test.cpp LIBS lumbra_IotToMqttComm)
lumbra_add_test(outbox_test SOURCES outbox_test.cpp LIBS lumbra_Outbox)
