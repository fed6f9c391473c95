// What passes between the gateway and the broker: uploads are published
// (compressed when asked), the device's cloud commands go to the gateway
// under their short topic, and the broker's state is reported to it.
#pragma once

#include <QByteArray>

#include <functional>
#include <mutex>

namespace agent {

class BrokerLink;
class GatewayLink;

class Bridge {
public:
    // restart: called when the gateway asks to be restarted.
    Bridge(const QByteArray &prefix, std::function<void()> restart);
    void attach(BrokerLink *broker, GatewayLink *gateway);

    // A raw message from the gateway (gateway link thread).
    void fromGateway(const QByteArray &raw);
    // A message on the device's subscription (broker thread).
    void fromBroker(const QByteArray &topic, const QByteArray &payload);
    // The broker connection came up or went down (broker thread; main, once,
    // before the broker starts).
    void brokerState(bool connected);

private:
    void publish(const QByteArray &topic, const QByteArray &payload, int qos, bool zip);

    QByteArray m_prefix;
    std::function<void()> m_restart;
    BrokerLink *m_broker = nullptr;
    GatewayLink *m_gateway = nullptr;
    // Held from reading the state to queueing it, so that an answer to a
    // state request never overtakes the news of a change.
    std::mutex m_stateMutex;
    bool m_brokerUp = false;
};

}  // namespace agent
