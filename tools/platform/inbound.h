// One message from a gateway, checked and taken apart, as the MQTT side
// hands it to the store. Anything that does not fit is refused here, on the
// MQTT thread, so that the store only ever sees well-formed work.
#pragma once

#include "topic.h"

#include <QByteArray>
#include <QString>
#include <QVector>

namespace platform {

struct PointValue {
    int code = 0;
    QString value;
};

struct HistoryRow {
    qint64 time = 0;   // the gateway's seconds, as sent
    QString text;      // the group's values joined by line feeds
    qint64 rowId = -1;  // "row_id" when the gateway names its rows
};

struct AlarmEvent {
    int index = 0;
    int level = 0;
    int type = 1;  // 1 alarm, 2 recovery
    QString note;
    qint64 time = 0;
    quint32 reqId = 0;
    QByteArray reqTopic;  // the short topic it came on, named in the acknowledgement
};

struct EditAck {
    QString kind;       // "rtd", "history", ...
    QString operation;  // "add", "modify", "delete"
    QString ids;        // "data_index" as sent
    int result = 0;
};

struct Inbound {
    TopicKind kind = TopicKind::Unknown;
    QString serial;
    QString version;
    QByteArray prefix;  // "/<serial>_<version>", where acknowledgements go
    qint64 receivedMs = 0;
    qint64 bytes = 0;   // payload size, for the queue's bound

    QVector<PointValue> points;  // RealTime
    quint32 groupId = 0;         // History
    QVector<HistoryRow> rows;    // History
    AlarmEvent alarm;            // Alarm
    EditAck edit;                // EditAck
    int forwardId = 0;           // ForwardState
    int forwardStatus = 0;
    QString text;                // DeviceInfo: the payload as sent
};

// Fills the kind-specific part of *out from the JSON payload of a message of
// kind info; false with *why for malformed content.
bool parsePayload(const TopicInfo &info, const QByteArray &json, Inbound *out, QString *why);

// zlib stream (RFC 1950) to bytes, giving up beyond maxBytes of output: a
// small bomb must not take the memory of the box.
bool inflateZlib(const QByteArray &in, int maxBytes, QByteArray *out, const char **why);

}  // namespace platform
