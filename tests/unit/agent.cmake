# The bridge to the local MQTT agent, against a real nanomsg peer.
lumbra_add_test(iottomqttcomm_test SOURCES iottomqttcomm_test.cpp LIBS lumbra_IotToMqttComm)
