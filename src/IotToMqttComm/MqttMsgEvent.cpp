#include "MqttMsgEvent.h"

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
    {"/DevRecv/HisData", nullptr},
    {"/DevRecv/OnlineHDSet", nullptr},
    {"/DevRecv/OnlineADSet", nullptr},
    {"/DevRecv/MsgAck", nullptr},
    {"/DevRecv/OnlineScriptSet", nullptr},
    {"/DevRecv/OnlineMqttServerSet", nullptr},
    {"/DevRecv/OnlineMqttTopicSet", nullptr},
    {"/DevRecv/SoftwareOperation", nullptr},
};

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
