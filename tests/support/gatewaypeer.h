// The gateway's end of the agent's nanomsg PAIR socket: connects to the
// agent, sends envelopes as the gateway would and reads what comes back.
#pragma once

#include "agentpeer.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace lumbra::test {

class GatewayPeer {
public:
    explicit GatewayPeer(const QString &url);
    // Leaves the agent, as a gateway that ends; connect() comes back.
    void close() { m_socket.reset(); }
    bool connect();

    bool send(const QByteArray &bytes, int timeoutMs = 3000);
    // The next message that is a JSON object, or an empty one after timeoutMs.
    QJsonObject receive(int timeoutMs);
    // The next message whose "topic" is topic, skipping others.
    QJsonObject receiveTopic(const QString &topic, int timeoutMs);

private:
    QString m_url;
    NnSocket m_socket;
};

}  // namespace lumbra::test
