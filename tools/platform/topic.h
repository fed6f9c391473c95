// The gateways' topics: "/<serial>_<version>/DevSend/<what>" up,
// "/<serial>_<version>/DevRecv/<what>" down.
#pragma once

#include <QByteArray>
#include <QString>

namespace platform {

enum class TopicKind {
    RealTime,       // /DevSend/RTD, RTDCompress
    History,        // /DevSend/Sequential/HisData, HisDataCompress
    Alarm,          // /DevSend/Alarm, AlarmCompress, AlarmRecover
    DeviceInfo,     // /DevSend/DevConfigReq: the announcement
    ConfigRequest,  // /DevSend/<kind>ConfigReq
    EditAck,        // /DevSend/Online...SetAck, SoftwareOperationAck and friends
    ForwardState,   // /DevSend/DataforwardMqttConnectStatus
    Ignored,        // known, nothing to keep
    Unknown,
};

struct TopicInfo {
    TopicKind kind = TopicKind::Unknown;
    bool compressed = false;
    bool recovery = false;     // AlarmRecover
    int configKind = -1;       // ConfigRequest: 0 links ... 5 forwarding servers
    const char *edit = "";     // EditAck: "rtd", "history", ...
};

TopicInfo classify(const QByteArray &shortTopic);

struct DeviceTopic {
    QString serial;
    QString version;
    QByteArray prefix;      // "/<serial>_<version>"
    QByteArray shortTopic;  // "/DevSend/RTD"
};

// False for a topic that is not a device upload or whose serial number
// could not name a folder; *why says which.
bool parseDeviceTopic(const QByteArray &topic, DeviceTopic *out, const char **why);

// Letters, digits, '-', '_' and '.', 1 to 64 of them, not starting with '.':
// a serial number is used as a folder name and must stay one.
bool validSerial(const QString &serial);

// The six configuration kinds the gateway asks for, in its order.
const char *configFileName(int kind);     // "LinkConfiguration.json", ...
const char *configReplyTopic(int kind);   // "/DevRecv/DevConnInfoAck", ...
const int kConfigKinds = 6;

// Online edits the API may send: kind name ("rtd") to its command topic
// ("/DevRecv/OnlineRTDSet"); null for an unknown kind.
const char *editTopic(const QString &kind);

}  // namespace platform
