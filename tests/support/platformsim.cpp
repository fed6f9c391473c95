#include "platformsim.h"

#include <QElapsedTimer>
#include <QJsonDocument>

namespace lumbra::test {

namespace {

const char *const kRequests[] = {"/DevSend/DevConnInfoReq",   "/DevSend/RTDConfigReq",
                                 "/DevSend/HisDataConfigReq", "/DevSend/AlarmConfigReq",
                                 "/DevSend/ScriptConfigReq",  "/DevSend/MqttServerConfigReq"};
const char *const kReplies[] = {"/DevRecv/DevConnInfoAck",  "/DevRecv/RTDConfigAck",
                                "/DevRecv/HisDataConfigAck", "/DevRecv/AlarmConfigAck",
                                "/DevRecv/ScriptConfigAck", "/DevRecv/DevMqttServerConfigAck"};

}  // namespace

const char *PlatformSim::replyTopic(int kind) { return kReplies[kind]; }
const char *PlatformSim::requestTopic(int kind) { return kRequests[kind]; }

void PlatformSim::replyUnchanged()
{
    for (int kind = 0; kind < 6; ++kind)
        setReply(kind, R"({"data":[],"last_updata_time":"1"})");
}

bool PlatformSim::command(const QString &topic, const QByteArray &payload)
{
    QJsonObject envelope{{"topic", topic}, {"msg", QString::fromUtf8(payload)}};
    return m_agent.send(QJsonDocument(envelope).toJson(QJsonDocument::Compact));
}

QList<AgentUpload> PlatformSim::uploadsTo(const QString &suffix) const
{
    QList<AgentUpload> out;
    for (const AgentUpload &up : uploads)
        if (up.topic.endsWith(suffix))
            out << up;
    return out;
}

void PlatformSim::handle(const QJsonObject &envelope)
{
    const QString topic = envelope.value("topic").toString();
    if (topic == "mqtt_status_req") {
        m_agent.send(R"({"topic":"mqtt_status_Notification","status":true})");
        return;
    }
    if (topic == "restartLumbra") {
        restartRequested = true;
        return;
    }
    const AgentUpload up = AgentUpload::of(envelope);
    if (topic.endsWith("/DevSend/DevConfigReq")) {
        announced = true;
        return;
    }
    for (int kind = 0; kind < 6; ++kind) {
        if (!topic.endsWith(kRequests[kind]))
            continue;
        requests << Request{kind, up.msg.value("last_updata_time").toString()};
        if (m_replies.contains(kind))
            command(kReplies[kind], m_replies.value(kind));
        return;
    }
    uploads << up;
}

bool PlatformSim::serve(const std::function<bool()> &done, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    while (!done()) {
        if (t.elapsed() >= timeoutMs)
            return false;
        const QJsonObject envelope = m_agent.receiveEnvelope(100);
        if (!envelope.isEmpty())
            handle(envelope);
    }
    return true;
}

}  // namespace lumbra::test
