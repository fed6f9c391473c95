# Forwarding records, triggers, payload pieces and the cache, without a broker.
lumbra_add_test(mqttforward_test SOURCES mqttforward_test.cpp LIBS lumbra_MqttCliManager)
