#include "MqttMsgEvent.h"

#include "IotToMqttComm.h"
#include "mqttmsg_p.h"

#include "AlarmData/AlarmData.h"
#include "HistoricalData/HistoricalData.h"
#include "MqttCliManager/MqttCliManager.h"
#include "SoftwareOpt/SoftwareOpt.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QJsonDocument>
#include <QMutex>

namespace {

struct TopicFunc {
    const char *topic;
    MqttMsgEvent::DealFunc func;
};

// The worker reports on its own topic; dispatch only hands the text over.
int SoftwareOperation(const QString &payload)
{
    return SoftwareOpt::getInstance()->execOpt(payload);
}

TopicFunc mqtt_host_sub_topic_func[] = {
    {"/DevRecv/DevConnInfoAck", &MqttMsgEvent::recvLinkAckEvent},
    {"/DevRecv/RTDConfigAck", &MqttMsgEvent::recvRealAckEvent},
    {"/DevRecv/HisDataConfigAck", &MqttMsgEvent::recvHistoryAckEvent},
    {"/DevRecv/AlarmConfigAck", &MqttMsgEvent::recvAlarmAckEvent},
    {"/DevRecv/ScriptConfigAck", &MqttMsgEvent::recvScriptAckEvent},
    {"/DevRecv/DevMqttServerConfigAck", &MqttMsgEvent::recvMqttSerCfgAckEvent},
    {"/DevRecv/DataUploadCtrl", &MqttMsgEvent::DataUploadCtrl},
    {"/DevRecv/OnlineRTDSet", &MqttMsgEvent::OnlineRTDSet},
    {"/DevRecv/WriteData", &MqttMsgEvent::WriteRTD},
    {"/DevRecv/HisData", &MqttMsgEvent::recvHistoryDataAck},
    {"/DevRecv/OnlineHDSet", &MqttMsgEvent::OnlineHDSet},
    {"/DevRecv/OnlineADSet", &MqttMsgEvent::OnlineADSet},
    {"/DevRecv/MsgAck", &MqttMsgEvent::MsgAck},
    {"/DevRecv/OnlineScriptSet", &MqttMsgEvent::OnlineScriptSet},
    {"/DevRecv/OnlineMqttServerSet", &MqttCliManager::onlineServerHandler},
    {"/DevRecv/OnlineMqttTopicSet", &MqttCliManager::onlineTopicHandler},
    {"/DevRecv/SoftwareOperation", &SoftwareOperation},
};

QMutex &tableMutex()
{
    static QMutex m;
    return m;
}

// The platform's parsers are not ours to know, so replies keep the key order
// they were specified in; QJsonObject would sort them.
QByteArray field(const char *key, const QString &text, bool first = false)
{
    QByteArray out(first ? "{\"" : ",\"");
    out += key;
    out += "\":";
    lumbra::appendJsonString(out, text);
    return out;
}

}  // namespace

namespace lumbra {

bool parseObject(const QString &payload, QJsonObject *out, QString *why)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(payload.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        if (why)
            *why = error.error != QJsonParseError::NoError ? error.errorString() : QString("not an object");
        return false;
    }
    *out = doc.object();
    return true;
}

bool parseObject(const QString &payload, QJsonObject *out)
{
    return parseObject(payload, out, nullptr);
}

}  // namespace lumbra

QMap<QString, MqttMsgEvent::DealFunc> MqttMsgEvent::MqttDealMap;

void MqttMsgEvent::MqttDealMapInit()
{
    QMutexLocker lock(&tableMutex());
    for (const TopicFunc &t : mqtt_host_sub_topic_func) {
        zlog_debug(g_zlog, "insert event:%s", t.topic);
        MqttDealMap.insert(QString::fromLatin1(t.topic), t.func);
    }
}

void MqttMsgEvent::setHandler(const QString &topic, DealFunc func)
{
    QMutexLocker lock(&tableMutex());
    for (TopicFunc &t : mqtt_host_sub_topic_func)
        if (topic == QLatin1String(t.topic))
            t.func = func;
    MqttDealMap.insert(topic, func);
}

bool MqttMsgEvent::lookup(const QString &topic, DealFunc *func)
{
    QMutexLocker lock(&tableMutex());
    auto it = MqttDealMap.constFind(topic);
    if (it == MqttDealMap.constEnd())
        return false;
    *func = it.value();
    return true;
}

int MqttMsgEvent::MsgAck(const QString &payload)
{
    QJsonObject o;
    if (!lumbra::parseObject(payload, &o)) {
        zlog_error(g_zlog, "paser fail [%s]", payload.toLocal8Bit().constData());
        return -1;
    }
    const QString topic = lumbra::jsonText(o.value("reqTopic"));
    zlog_debug(g_zlog, "MsgAck topic:%s", topic.toLocal8Bit().constData());
    // Covers "/DevSend/AlarmCompress" and "/DevSend/AlarmRecover" as well.
    if (topic.contains("/DevSend/Alarm"))
        AlarmData::getInstance()->MsgAck(lumbra::jsonText(o.value("reqId")).toUInt());
    return 0;
}

int MqttMsgEvent::recvHistoryDataAck(const QString &payload)
{
    QJsonObject o;
    if (!lumbra::parseObject(payload, &o)) {
        zlog_error(g_zlog, "recv histroy data json parse err");
        return 0;
    }
    const QString status = lumbra::jsonText(o.value("status"));
    // The batch is released whatever the platform says of it: the platform
    // has it, and sending it again would only duplicate it.
    HistoricalData::getInstance()->AckdelHisData(static_cast<unsigned>(lumbra::jsonInt(o.value("group_id"))));
    if (status != "yes")
        zlog_error(g_zlog, "recv history data acv err:%s", payload.toLocal8Bit().constData());
    return 0;
}

void MqttMsgEvent::RepOnlineSetAck(const QString &topic, const QString &dataIndex, const QString &operationType,
                                   int result)
{
    QByteArray text = field("sn_code", deviceInfo::getInstance()->sn(), true) + field("data_index", dataIndex);
    text += ",\"operation_result\":" + QByteArray::number(result) + field("operation_type", operationType) + "}";
    IotToMqttComm::getInstance()->MqttMsgSend(topic, QString::fromUtf8(text), false, 0);
}

void MqttMsgEvent::RepIotAllConfig(const QString &configType)
{
    const QByteArray text = field("sn_code", deviceInfo::getInstance()->sn(), true) +
                            field("config_type", configType) + ",\"config_receive_state\":1}";
    IotToMqttComm::getInstance()->MqttMsgSend("/DevSend/OnlineAllConfigReceive", QString::fromUtf8(text), false, 0);
}
