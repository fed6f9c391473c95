// The JSON envelopes the gateway and the agent exchange on their socket, and
// the zlib form of compressed uploads.
#pragma once

#include <QByteArray>

namespace agent {

// What the gateway asked for in one message.
struct Uplink {
    enum Kind { Publish, StatusRequest, Restart };
    Kind kind = Publish;
    QByteArray topic;    // full MQTT topic, UTF-8
    QByteArray payload;  // "msg" as UTF-8
    int qos = 0;         // clamped to 0..2
    bool zip = false;
};

// False for anything that is not a well-formed envelope; *why names the fault.
bool parseUplink(const QByteArray &raw, Uplink *out, const char **why);

// {"topic": shortTopic, "msg": payload as text}
QByteArray downlinkEnvelope(const QByteArray &shortTopic, const QByteArray &payload);
// {"topic":"mqtt_status_Notification","status":connected}
QByteArray statusEnvelope(bool connected);

// "/<serial>_<version>"; every device topic starts with it.
QByteArray devicePrefix(const QString &serial, const QString &version);
// The topic with prefix cut off; empty when it does not start with prefix.
QByteArray shortTopic(const QByteArray &topic, const QByteArray &prefix);

// A zlib stream (RFC 1950) of data at level 6; false when zlib failed.
bool zlibCompress(const QByteArray &data, QByteArray *out);

}  // namespace agent
