#include "topic.h"

#include <cstring>

namespace platform {
namespace {

struct Route {
    const char *topic;
    TopicInfo info;
};

TopicInfo kindOnly(TopicKind k, bool compressed = false)
{
    TopicInfo t;
    t.kind = k;
    t.compressed = compressed;
    return t;
}

TopicInfo config(int kind)
{
    TopicInfo t = kindOnly(TopicKind::ConfigRequest);
    t.configKind = kind;
    return t;
}

TopicInfo edit(const char *name)
{
    TopicInfo t = kindOnly(TopicKind::EditAck);
    t.edit = name;
    return t;
}

TopicInfo recovery()
{
    TopicInfo t = kindOnly(TopicKind::Alarm);
    t.recovery = true;
    return t;
}

const Route kRoutes[] = {
    {"/DevSend/RTD", kindOnly(TopicKind::RealTime)},
    {"/DevSend/RTDCompress", kindOnly(TopicKind::RealTime, true)},
    {"/DevSend/Sequential/HisData", kindOnly(TopicKind::History)},
    {"/DevSend/Sequential/HisDataCompress", kindOnly(TopicKind::History, true)},
    {"/DevSend/Alarm", kindOnly(TopicKind::Alarm)},
    {"/DevSend/AlarmCompress", kindOnly(TopicKind::Alarm, true)},
    {"/DevSend/AlarmRecover", recovery()},
    {"/DevSend/DevConfigReq", kindOnly(TopicKind::DeviceInfo)},
    {"/DevSend/DevConnInfoReq", config(0)},
    {"/DevSend/RTDConfigReq", config(1)},
    {"/DevSend/HisDataConfigReq", config(2)},
    {"/DevSend/AlarmConfigReq", config(3)},
    {"/DevSend/ScriptConfigReq", config(4)},
    {"/DevSend/MqttServerConfigReq", config(5)},
    {"/DevSend/OnlineConnSetAck", edit("link")},
    {"/DevSend/OnlineRTDSetAck", edit("rtd")},
    {"/DevSend/OnlineHDSetAck", edit("history")},
    {"/DevSend/OnlineADSetAck", edit("alarm")},
    {"/DevSend/ScriptConfigsetAck", edit("script")},
    {"/DevSend/OnlineMqttServerSetAck", edit("mqtt-server")},
    {"/DevSend/OnlineMqttTopicSetAck", edit("mqtt-topic")},
    {"/DevSend/DataforwardMqttConnectStatus", kindOnly(TopicKind::ForwardState)},
    {"/DevSend/SoftwareOperationAck", edit("software")},
    {"/DevSend/OnlineAllConfigReceive", kindOnly(TopicKind::Ignored)},
};

struct ConfigKind {
    const char *file;
    const char *reply;
};

const ConfigKind kConfig[kConfigKinds] = {
    {"LinkConfiguration.json", "/DevRecv/DevConnInfoAck"},
    {"RealTimeConfiguration.json", "/DevRecv/RTDConfigAck"},
    {"HistoryConfiguration.json", "/DevRecv/HisDataConfigAck"},
    {"AlarmConfiguration.json", "/DevRecv/AlarmConfigAck"},
    {"ScriptConfiguration.json", "/DevRecv/ScriptConfigAck"},
    {"ServerCfg.json", "/DevRecv/DevMqttServerConfigAck"},
};

const struct {
    const char *kind;
    const char *topic;
} kEdits[] = {
    {"rtd", "/DevRecv/OnlineRTDSet"},
    {"history", "/DevRecv/OnlineHDSet"},
    {"alarm", "/DevRecv/OnlineADSet"},
    {"script", "/DevRecv/OnlineScriptSet"},
    {"mqtt-server", "/DevRecv/OnlineMqttServerSet"},
    {"mqtt-topic", "/DevRecv/OnlineMqttTopicSet"},
    {"upload", "/DevRecv/DataUploadCtrl"},
    {"software", "/DevRecv/SoftwareOperation"},
};

bool serialChar(QChar c)
{
    const ushort u = c.unicode();
    return (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') || u == '-' || u == '_' ||
           u == '.';
}

}  // namespace

TopicInfo classify(const QByteArray &shortTopic)
{
    for (const Route &r : kRoutes)
        if (shortTopic == r.topic)
            return r.info;
    return TopicInfo{};
}

bool validSerial(const QString &serial)
{
    if (serial.isEmpty() || serial.size() > 64 || serial.startsWith('.'))
        return false;
    for (const QChar c : serial)
        if (!serialChar(c))
            return false;
    return true;
}

bool parseDeviceTopic(const QByteArray &topic, DeviceTopic *out, const char **why)
{
    const int second = topic.indexOf('/', 1);
    if (!topic.startsWith('/') || second < 0) {
        *why = "not a device topic";
        return false;
    }
    const QByteArray device = topic.mid(1, second - 1);
    // The version follows the last '_', so a serial may hold '_' itself.
    const int cut = device.lastIndexOf('_');
    if (cut < 0) {
        *why = "no <serial>_<version> level";
        return false;
    }
    out->serial = QString::fromUtf8(device.left(cut));
    out->version = QString::fromUtf8(device.mid(cut + 1));
    if (!validSerial(out->serial)) {
        *why = "serial number unfit for a folder name";
        return false;
    }
    out->prefix = topic.left(second);
    out->shortTopic = topic.mid(second);
    return true;
}

const char *configFileName(int kind)
{
    return kind >= 0 && kind < kConfigKinds ? kConfig[kind].file : "";
}

const char *configReplyTopic(int kind)
{
    return kind >= 0 && kind < kConfigKinds ? kConfig[kind].reply : "";
}

const char *editTopic(const QString &kind)
{
    for (const auto &e : kEdits)
        if (kind == QLatin1String(e.kind))
            return e.topic;
    return nullptr;
}

}  // namespace platform
