#include "commands.h"

#include "jsonout.h"
#include "platformlog.h"
#include "topic.h"

#include "generalFunc/secrets.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace platform {
namespace {

const qint64 kWriteReportMs = 10 * 60 * 1000;

}  // namespace

Reply errorReply(int status, const QString &message)
{
    QByteArray j = "{";
    jsonField(j, "error", message);
    return {status, j + "}"};
}

Reply Commands::send(const QString &serial, const QString &kind, const QString &operation, const QByteArray &topic,
                     const QByteArray &message, GatewayRef *ref, qint64 *id)
{
    if (!m_store.gateway(serial, ref))
        return errorReply(404, "no gateway " + serial + " has been heard of");
    // The record keeps no passwords (broker and FTP settings carry them).
    *id = m_store.recordEdit(ref->id, kind, operation, lumbra::maskSecrets(message));
    if (*id < 0)
        return errorReply(503, "the database cannot record the command now");
    m_publish({ref->prefix + topic, message});
    PLOG_INFO("%s to %s (edit %lld): %s", topic.constData(), serial.toUtf8().constData(), static_cast<long long>(*id),
              agent::preview(lumbra::maskSecrets(message)).constData());
    QByteArray j = "{";
    jsonField(j, "id", *id);
    jsonField(j, "topic", QString::fromUtf8(ref->prefix + topic));
    jsonBool(j, "online", ref->online);
    return {202, j + "}"};
}

Reply Commands::write(const QString &serial, const QByteArray &body)
{
    const QJsonObject o = QJsonDocument::fromJson(body).object();
    const QJsonValue code = o.value("code"), value = o.value("value");
    if (!code.isDouble() || code.toDouble() != double(code.toInt()) || !(value.isString() || value.isDouble()))
        return errorReply(400, "expected {\"code\": <integer>, \"value\": \"<text>\"}");
    const QString text = lumbra::jsonText(value);
    const QJsonArray message{QJsonObject{{"data_code", QString::number(code.toInt())}, {"data_value", text}}};
    GatewayRef ref;
    qint64 id = -1;
    const Reply r = send(serial, "write", "write", "/DevRecv/WriteData",
                         QJsonDocument(message).toJson(QJsonDocument::Compact), &ref, &id);
    if (id >= 0) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_writes[{serial, code.toInt()}] = {id, text, QDateTime::currentMSecsSinceEpoch()};
    }
    return r;
}

Reply Commands::edit(const QString &serial, const QString &kind, const QByteArray &body)
{
    const char *topic = editTopic(kind);
    if (!topic)
        return errorReply(404, "no such edit kind: " + kind +
                                   " (rtd, history, alarm, script, mqtt-server, mqtt-topic, upload, software)");
    const QJsonDocument doc = QJsonDocument::fromJson(body);
    if (!doc.isObject())
        return errorReply(400, "the body must be the JSON object the gateway takes on " + QString(topic));
    const QJsonObject o = doc.object();
    const QString operation = o.contains("operation_type") ? lumbra::jsonText(o.value("operation_type"))
                                                          : lumbra::jsonText(o.value("devOperationType"));
    GatewayRef ref;
    qint64 id = -1;
    return send(serial, kind, operation, topic, doc.toJson(QJsonDocument::Compact), &ref, &id);
}

qint64 Commands::matchWrite(const QString &serial, int code, const QString &value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_writes.find({serial, code});
    if (it == m_writes.end())
        return -1;
    const Pending p = it->second;
    if (QDateTime::currentMSecsSinceEpoch() - p.sentMs > kWriteReportMs) {
        m_writes.erase(it);
        return -1;
    }
    if (p.value != value)
        return -1;
    m_writes.erase(it);
    return p.id;
}

}  // namespace platform
