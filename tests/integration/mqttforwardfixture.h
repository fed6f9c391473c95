// Forwarding to the user's own brokers, in process: real mosquitto brokers on
// loopback ports, a libmodbus slave as the device, a nanomsg peer as the
// agent that carries the connection reports to the platform.
#pragma once

#include "AlarmData/AlarmData.h"
#include "MqttCliManager/MqttCliManager.h"
#include "RealData/RealData.h"
#include "cloudlinkfixture.h"
#include "mosquittobroker.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace lumbra::test {

inline QString forwardTopic(const char *func, const QString &name, const QString &json, const QString &extra = "")
{
    return QString(R"({"func_type_name":"%1","topic":"%2","send_interval_type":1,%3"json":%4})")
        .arg(func, name, extra,
             QString::fromUtf8(QJsonDocument(QJsonArray{json}).toJson(QJsonDocument::Compact)).mid(1).chopped(1));
}

// Publishes every second, with the cache on; extra goes into the record.
inline QString forwardServer(int id, int port, const QStringList &pub, const QStringList &sub = {},
                             const QString &extra = "")
{
    return QString(R"({"server_config_id":%1,"host":"127.0.0.1","port":%2,"client_id":"box%1","keep_alive":60,)"
                   R"("push_period":1,"push_unit":0,"use_offline_cache":true,"store_type":2,"cache_num":1000,%3)"
                   R"("publish_topic_data":[%4],"subscribe_topic_data":[%5]})")
        .arg(id)
        .arg(port)
        .arg(extra, pub.join(','), sub.join(','));
}

inline QJsonObject jsonOf(const QByteArray &text)
{
    return QJsonDocument::fromJson(text).object();
}

// The "ts" of each message on topic, in the order they arrived.
inline QList<qint64> stamps(const QList<MqttMessage> &messages, const QString &topic)
{
    QList<qint64> out;
    for (const MqttMessage &m : messages)
        if (m.topic == topic)
            out << jsonOf(m.payload).value("ts").toVariant().toLongLong();
    return out;
}

// Empty when the stamps are one a second, each once, in order; otherwise
// where they are not.
inline QString everySecondOnce(const QList<qint64> &ts)
{
    QStringList faults;
    for (int i = 1; i < ts.size(); ++i)
        if (ts.at(i) != ts.at(i - 1) + 1)
            faults << QString("%1 after %2").arg(ts.at(i)).arg(ts.at(i - 1));
    return faults.join(", ");
}

class ForwardingFixture : public CloudLinkFixture {
protected:
    MqttCliManager *mgr = MqttCliManager::getInstance();

    void SetUp() override
    {
        CloudLinkFixture::SetUp();
        if (HasFatalFailure())
            return;
        // Uploads to the platform every 30 s: what is forwarded each second
        // must not wait for them.
        work.write("iotRunTime/RealTimeConfiguration.json",
                   QString(R"({"upload_func_state":false,"global_upload_time":30,"data":[%1]})")
                       .arg(points().join(','))
                       .toUtf8());
        RealData::getInstance()->init();
    }
    void TearDown() override
    {
        mgr->stop();
        AlarmData::getInstance()->stop();
        RealData::getInstance()->stop();
        CloudLinkFixture::TearDown();
    }
    virtual QStringList points() const
    {
        // Point 3 lies beyond the slave's registers: the device refuses it.
        // Point 4 is 8 characters of text, point 5 a float.
        return {point(1, 1), point(2, 2), point(3, 3000), point(4, 10, 7, R"("data_totalDigits":8,)"),
                point(5, 20, 6, R"("data_devimalDigits":2,)")};
    }
    static QString point(int code, int no, int type = 0, const QString &extra = "")
    {
        return QString(R"({"data_code":%1,"data_type":%3,%4"data_readAddress":{"link":"PLC1","block":"4X",)"
                       R"("no":"%2","sta":1,"length":1}})")
            .arg(code)
            .arg(no)
            .arg(type)
            .arg(extra);
    }
    void startForwarding(const QStringList &servers)
    {
        work.write("iotRunTime/ServerCfg.json", QString(R"({"data":[%1]})").arg(servers.join(',')).toUtf8());
        mgr->init();
        comm->enableExternalAddrInfo(true);
    }
    // The connection reports that arrive within timeoutMs, as their "status"
    // values; stops at want.
    QList<int> statuses(int want, int timeoutMs = 8000)
    {
        QList<int> out;
        eventually([&] {
            const AgentUpload u = agent.receiveTopic("/DevSend/DataforwardMqttConnectStatus", 200);
            if (u.ok())
                out << u.msg.value("status").toInt();
            return out.size() >= want;
        }, timeoutMs);
        return out;
    }
    // Until the client of the server at port has logged a failed attempt
    // with this wait before the next.
    bool failedThenWaits(int port, int seconds, int timeoutMs)
    {
        const QRegularExpression line(QString("127\\.0\\.0\\.1:%1 [^\n]*retrying in %2 s").arg(port).arg(seconds));
        return eventually([&] { return line.match(log.text()).hasMatch(); }, timeoutMs);
    }
    bool connected(int id, int timeoutMs)
    {
        return eventually([&] { return mgr->client(id) && mgr->client(id)->isConnected(); }, timeoutMs);
    }
};

}  // namespace lumbra::test
