// A libmosquitto client on its own network thread for test peers that play
// a platform or a gateway on the test broker: it reconnects within a second
// when the broker comes back, subscribes again on every connect, and hands
// each message to a callback on that thread.
#pragma once

#include <QByteArray>

#include <atomic>
#include <functional>

struct mosquitto;

namespace lumbra::test {

class MqttClient {
public:
    using OnMessage = std::function<void(const QByteArray &topic, const QByteArray &payload)>;
    // filter: subscribed at QoS 1 on every connect.
    MqttClient(int brokerPort, const QByteArray &filter, OnMessage onMessage);
    ~MqttClient();
    MqttClient(const MqttClient &) = delete;
    MqttClient &operator=(const MqttClient &) = delete;

    bool connected(int timeoutMs = 5000) const;
    bool publish(const QByteArray &topic, const QByteArray &payload, int qos = 0);

    void onConnect(int rc);
    void onDisconnect() { m_connected = false; }
    void onMessage(const QByteArray &topic, const QByteArray &payload) { m_onMessage(topic, payload); }

private:
    QByteArray m_filter;
    OnMessage m_onMessage;
    mosquitto *m_mosq = nullptr;
    std::atomic<bool> m_connected{false};
};

}  // namespace lumbra::test
