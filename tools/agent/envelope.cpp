#include "envelope.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <zlib.h>

namespace agent {

bool parseUplink(const QByteArray &raw, Uplink *out, const char **why)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(raw, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        *why = error.error != QJsonParseError::NoError ? "not JSON" : "not a JSON object";
        return false;
    }
    const QJsonObject obj = doc.object();
    const QJsonValue topic = obj.value("topic");
    if (!topic.isString() || topic.toString().isEmpty()) {
        *why = topic.isUndefined() ? "no topic" : "topic is not a non-empty string";
        return false;
    }
    if (topic.toString() == "mqtt_status_req" || topic.toString() == "restartLumbra") {
        out->kind = topic.toString() == "restartLumbra" ? Uplink::Restart : Uplink::StatusRequest;
        return true;
    }
    const QJsonValue msg = obj.value("msg");
    if (!msg.isString()) {
        *why = msg.isUndefined() ? "no msg" : "msg is not a string";
        return false;
    }
    out->kind = Uplink::Publish;
    out->topic = topic.toString().toUtf8();
    out->payload = msg.toString().toUtf8();
    // The gateway only ever sends 0 or 1; anything else still gets a valid QoS.
    out->qos = qBound(0, obj.value("qos").toInt(0), 2);
    out->zip = obj.value("zip").toBool(false);
    return true;
}

QByteArray downlinkEnvelope(const QByteArray &shortTopic, const QByteArray &payload)
{
    const QJsonObject obj{{"topic", QString::fromUtf8(shortTopic)}, {"msg", QString::fromUtf8(payload)}};
    return QJsonDocument(obj).toJson(QJsonDocument::Compact);
}

QByteArray statusEnvelope(bool connected)
{
    return connected ? QByteArray(R"({"topic":"mqtt_status_Notification","status":true})")
                     : QByteArray(R"({"topic":"mqtt_status_Notification","status":false})");
}

QByteArray devicePrefix(const QString &serial, const QString &version)
{
    return QString("/%1_%2").arg(serial, version).toUtf8();
}

QByteArray shortTopic(const QByteArray &topic, const QByteArray &prefix)
{
    if (!topic.startsWith(prefix) || topic.size() == prefix.size() || topic.at(prefix.size()) != '/')
        return QByteArray();
    return topic.mid(prefix.size());
}

bool zlibCompress(const QByteArray &data, QByteArray *out)
{
    uLongf size = compressBound(static_cast<uLong>(data.size()));
    out->resize(static_cast<int>(size));
    const int rc = compress2(reinterpret_cast<Bytef *>(out->data()), &size,
                             reinterpret_cast<const Bytef *>(data.constData()), static_cast<uLong>(data.size()), 6);
    if (rc != Z_OK)
        return false;
    out->resize(static_cast<int>(size));
    return true;
}

}  // namespace agent
