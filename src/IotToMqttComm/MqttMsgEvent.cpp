#include "MqttMsgEvent.h"

#include "AlarmData/AlarmData.h"
#include "HistoricalData/HistoricalData.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>

namespace {

struct TopicFunc {
    const char *topic;
    MqttMsgEvent::DealFunc func;
};

// The handlers come with the services that own each command; until then a
// topic is listed so that its messages are recognised and logged.
TopicFunc mqtt_host_sub_topic_func[] = {
    {"/DevRecv/DevConnInfoAck", nullptr},
    {"/DevRecv/RTDConfigAck", nullptr},
    {"/DevRecv/HisDataConfigAck", nullptr},
    {"/DevRecv/AlarmConfigAck", nullptr},
    {"/DevRecv/ScriptConfigAck", nullptr},
    {"/DevRecv/DevMqttServerConfigAck", nullptr},
    {"/DevRecv/DataUploadCtrl", nullptr},
    {"/DevRecv/OnlineRTDSet", nullptr},
    {"/DevRecv/WriteData", nullptr},
    {"/DevRecv/HisData", &MqttMsgEvent::recvHistoryDataAck},
    {"/DevRecv/OnlineHDSet", nullptr},
    {"/DevRecv/OnlineADSet", nullptr},
    {"/DevRecv/MsgAck", &MqttMsgEvent::MsgAck},
    {"/DevRecv/OnlineScriptSet", nullptr},
    {"/DevRecv/OnlineMqttServerSet", nullptr},
    {"/DevRecv/OnlineMqttTopicSet", nullptr},
    {"/DevRecv/SoftwareOperation", nullptr},
};

bool parseObject(const QString &payload, QJsonObject *out)
{
    QJsonDocument doc = QJsonDocument::fromJson(payload.toUtf8());
    if (!doc.isObject())
        return false;
    *out = doc.object();
    return true;
}

QMutex &tableMutex()
{
    static QMutex m;
    return m;
}

}  // namespace

QMap<QString, MqttMsgEvent::DealFunc> MqttMsgEvent::MqttDealMap;

void MqttMsgEvent::MqttDealMapInit()
{
    QMutexLocker lock(&tableMutex());
    for (const TopicFunc &t : mqtt_host_sub_topic_func)
        MqttDealMap.insert(QString::fromLatin1(t.topic), t.func);
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
    if (!parseObject(payload, &o)) {
        zlog_error(g_zlog, "paser fail [%s]", payload.toLocal8Bit().constData());
        return -1;
    }
    const QString topic = o.value("reqTopic").toString();
    zlog_debug(g_zlog, "MsgAck topic:%s", topic.toLocal8Bit().constData());
    // Covers "/DevSend/AlarmCompress" and "/DevSend/AlarmRecover" as well.
    if (topic.contains("/DevSend/Alarm"))
        AlarmData::getInstance()->MsgAck(lumbra::jsonText(o.value("reqId")).toUInt());
    return 0;
}

int MqttMsgEvent::recvHistoryDataAck(const QString &payload)
{
    QJsonObject o;
    if (!parseObject(payload, &o)) {
        zlog_error(g_zlog, "recv histroy data json parse err");
        return 0;
    }
    const QString status = o.value("status").toString();
    // The batch is released whatever the platform says of it: the platform
    // has it, and sending it again would only duplicate it.
    HistoricalData::getInstance()->AckdelHisData(static_cast<unsigned>(lumbra::jsonInt(o.value("group_id"))));
    if (status != "yes")
        zlog_error(g_zlog, "recv history data acv err:%s", payload.toLocal8Bit().constData());
    return 0;
}
