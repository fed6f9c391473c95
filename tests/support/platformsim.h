// The cloud platform as the gateway meets it through its agent: answers the
// configuration requests from stored documents, answers the agent's status
// question, and records everything else the gateway sends.
#pragma once

#include "agentpeer.h"

#include <QList>
#include <QMap>

#include <functional>

namespace lumbra::test {

class PlatformSim {
public:
    struct Request {
        int kind;            // 0 links ... 5 forwarding servers
        QString lastUpdate;  // the time the gateway holds
    };

    explicit PlatformSim(AgentPeer &agent) : m_agent(agent) {}

    // The reply to requests of kind; kinds without one are not answered.
    void setReply(int kind, const QByteArray &payload) { m_replies[kind] = payload; }
    // The six replies all saying "nothing newer".
    void replyUnchanged();
    static const char *replyTopic(int kind);
    static const char *requestTopic(int kind);

    // Serves until done() holds (true) or timeoutMs passed (false).
    bool serve(const std::function<bool()> &done, int timeoutMs);
    // Sends a cloud message to the gateway.
    bool command(const QString &topic, const QByteArray &payload);

    QList<Request> requests;
    QList<AgentUpload> uploads;  // the gateway's other messages, in order
    bool announced = false;
    bool restartRequested = false;

    // The uploads whose topic ends with suffix.
    QList<AgentUpload> uploadsTo(const QString &suffix) const;

private:
    void handle(const QJsonObject &envelope);

    AgentPeer &m_agent;
    QMap<int, QByteArray> m_replies;
};

}  // namespace lumbra::test
