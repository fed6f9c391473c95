#include "bridge.h"

#include "agentlog.h"
#include "brokerlink.h"
#include "envelope.h"
#include "gatewaylink.h"

namespace agent {

Bridge::Bridge(const QByteArray &prefix, std::function<void()> restart)
    : m_prefix(prefix), m_restart(std::move(restart))
{
}

void Bridge::attach(BrokerLink *broker, GatewayLink *gateway)
{
    m_broker = broker;
    m_gateway = gateway;
}

void Bridge::fromGateway(const QByteArray &raw)
{
    Uplink up;
    const char *why = "";
    if (!parseUplink(raw, &up, &why)) {
        AGENT_WARN("dropped malformed envelope (%s): %s", why, preview(raw).constData());
        return;
    }
    switch (up.kind) {
    case Uplink::StatusRequest: {
        // The gateway's heartbeat: answered every time, logged only with -v.
        AGENT_DEBUG("gateway asks for the broker state");
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_gateway->send(statusEnvelope(m_brokerUp));
        break;
    }
    case Uplink::Restart:
        AGENT_INFO("the gateway asks to be restarted");
        m_restart();
        break;
    case Uplink::Publish:
        publish(up.topic, up.payload, up.qos, up.zip);
        break;
    }
}

void Bridge::publish(const QByteArray &topic, const QByteArray &payload, int qos, bool zip)
{
    QByteArray body = payload;
    if (zip && !zlibCompress(payload, &body)) {
        AGENT_ERROR("zlib failed on %d bytes for %s, message dropped", payload.size(), topic.constData());
        return;
    }
    AGENT_DEBUG("gateway -> broker %s qos %d%s: %s", topic.constData(), qos, zip ? " zip" : "",
                preview(payload).constData());
    m_broker->publish(topic, body, qos);
}

void Bridge::fromBroker(const QByteArray &topic, const QByteArray &payload)
{
    const QByteArray shortName = shortTopic(topic, m_prefix);
    if (shortName.isEmpty()) {
        AGENT_WARN("dropped message on %s: not a topic of this device", preview(topic).constData());
        return;
    }
    AGENT_DEBUG("broker -> gateway %s: %s", shortName.constData(), preview(payload).constData());
    m_gateway->send(downlinkEnvelope(shortName, payload));
}

void Bridge::brokerState(bool connected)
{
    std::lock_guard<std::mutex> lock(m_stateMutex);
    m_brokerUp = connected;
    m_gateway->send(statusEnvelope(connected));
}

}  // namespace agent
