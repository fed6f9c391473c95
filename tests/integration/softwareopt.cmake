# Software operations against a pyftpdlib server and a nanomsg agent peer, in process.
lumbra_add_test(softwareopt_test SOURCES softwareopt_test.cpp LIBS lumbra_SoftwareOpt lumbra_IotToMqttComm)
