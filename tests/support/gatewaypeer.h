// The gateway's end of the agent's nanomsg PAIR socket: connects to the
// agent, sends envelopes as the gateway would and reads what comes back.
#pragma once

#include "agentpeer.h"

#include <QJsonObject>
#include <QString>

namespace lumbra::test {

class GatewayPeer : public AgentPeer {
public:
    explicit GatewayPeer(const QString &url) : AgentPeer(url, Role::Connect) {}
    // Comes back after close(), as a restarted gateway.
    bool connect() { return open(); }
    // The next message that is a JSON object, or an empty one after timeoutMs.
    QJsonObject receive(int timeoutMs) { return receiveEnvelope(timeoutMs); }
    // The next message whose "topic" is exactly topic, skipping others.
    QJsonObject receiveTopic(const QString &topic, int timeoutMs);
};

}  // namespace lumbra::test
