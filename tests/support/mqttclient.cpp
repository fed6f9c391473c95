#include "mqttclient.h"

#include "testsupport.h"

#include <mosquitto.h>

namespace lumbra::test {
namespace {

MqttClient *self(void *obj) { return static_cast<MqttClient *>(obj); }

void messageCallback(mosquitto *, void *obj, const mosquitto_message *m)
{
    self(obj)->onMessage(m->topic, QByteArray(static_cast<const char *>(m->payload), m->payloadlen));
}

void connectCallback(mosquitto *, void *obj, int rc) { self(obj)->onConnect(rc); }
void disconnectCallback(mosquitto *, void *obj, int) { self(obj)->onDisconnect(); }

}  // namespace

MqttClient::MqttClient(int brokerPort, const QByteArray &filter, OnMessage onMessage)
    : m_filter(filter), m_onMessage(std::move(onMessage))
{
    mosquitto_lib_init();
    m_mosq = mosquitto_new(nullptr, true, this);
    mosquitto_message_callback_set(m_mosq, messageCallback);
    mosquitto_connect_callback_set(m_mosq, connectCallback);
    mosquitto_disconnect_callback_set(m_mosq, disconnectCallback);
    mosquitto_reconnect_delay_set(m_mosq, 1, 1, false);
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_async(m_mosq, "127.0.0.1", brokerPort, 10);
    mosquitto_loop_start(m_mosq);
}

MqttClient::~MqttClient()
{
    mosquitto_disconnect(m_mosq);
    mosquitto_loop_stop(m_mosq, true);
    mosquitto_destroy(m_mosq);
}

void MqttClient::onConnect(int rc)
{
    if (rc != 0)
        return;
    // A clean session forgets subscriptions: renew them on every connect.
    mosquitto_subscribe(m_mosq, nullptr, m_filter.constData(), 1);
    m_connected = true;
}

bool MqttClient::connected(int timeoutMs) const
{
    return eventually([&] { return m_connected.load(); }, timeoutMs);
}

bool MqttClient::publish(const QByteArray &topic, const QByteArray &payload, int qos)
{
    return mosquitto_publish(m_mosq, nullptr, topic.constData(), payload.size(), payload.constData(), qos, false) ==
           MOSQ_ERR_SUCCESS;
}

}  // namespace lumbra::test
