// Forwarding to the user's own broker, in process: a real mosquitto on a
// loopback port, a libmodbus slave as the device, a nanomsg peer as the
// agent that carries the connection reports to the platform.
#include "AlarmData/AlarmData.h"
#include "IotToMqttComm/IotToMqttComm.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "MqttCliManager/MqttCliManager.h"
#include "RealData/RealData.h"
#include "cloudlinkfixture.h"
#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "modbusslave.h"
#include "mosquittobroker.h"
#include "tcplink.h"
#include "testsupport.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

const char kStatus[] = "/DevSend/DataforwardMqttConnectStatus";

QString topic(const char *func, const char *name, const QString &json, const QString &extra = "")
{
    return QString(R"({"func_type_name":"%1","topic":"%2","send_interval_type":1,%3"json":%4})")
        .arg(func, name, extra, QString::fromUtf8(QJsonDocument(QJsonArray{json}).toJson(QJsonDocument::Compact))
                                    .mid(1).chopped(1));
}

QString server(int id, int port, const QStringList &pub, const QStringList &sub, const QString &extra = "")
{
    return QString(R"({"server_config_id":%1,"host":"127.0.0.1","port":%2,"client_id":"box%1","keep_alive":60,)"
                   R"("push_period":1,"push_unit":0,"use_offline_cache":true,"store_type":2,"cache_num":100,%3)"
                   R"("publish_topic_data":[%4],"subscribe_topic_data":[%5]})")
        .arg(id)
        .arg(port)
        .arg(extra, pub.join(','), sub.join(','));
}

QString point(int code, int no)
{
    return QString(R"({"data_code":%1,"data_type":0,"data_readAddress":{"link":"PLC1","block":"4X","no":"%2",)"
                   R"("sta":1,"length":1}})")
        .arg(code)
        .arg(no);
}

QJsonObject json(const QByteArray &text)
{
    return QJsonDocument::fromJson(text).object();
}

class Forwarding : public CloudLinkFixture {
protected:
    MqttCliManager *mgr = MqttCliManager::getInstance();

    void SetUp() override
    {
        CloudLinkFixture::SetUp();
        if (HasFatalFailure())
            return;
        const QString rtd = R"({"upload_func_state":false,"global_upload_time":0,"data":[%1,%2,%3]})";
        // Point 3 lies beyond the slave's registers: the device refuses it.
        work.write("iotRunTime/RealTimeConfiguration.json",
                   rtd.arg(point(1, 1), point(2, 2), point(3, 3000)).toUtf8());
        RealData::getInstance()->init();
    }
    void TearDown() override
    {
        mgr->stop();
        AlarmData::getInstance()->stop();
        RealData::getInstance()->stop();
        CloudLinkFixture::TearDown();
    }
    void startForwarding(const QStringList &servers)
    {
        work.write("iotRunTime/ServerCfg.json", QString(R"({"data":[%1]})").arg(servers.join(',')).toUtf8());
        mgr->init();
        comm->enableExternalAddrInfo(true);
    }
    // The connection reports so far, as their "status" values.
    QList<int> statuses(int want, int timeoutMs = 8000)
    {
        QList<int> out;
        eventually([&] {
            const AgentUpload u = agent.receiveTopic(kStatus, 200);
            if (u.ok())
                out << u.msg.value("status").toInt();
            return out.size() >= want;
        }, timeoutMs);
        return out;
    }
    void send(const char *topicName, const QString &payload)
    {
        ASSERT_TRUE(agent.send(QJsonDocument(QJsonObject{{"topic", topicName}, {"msg", payload}}).toJson()));
    }
};

}  // namespace

TEST_F(Forwarding, TopicsCarryValuesAlarmsAndSystemVariables)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    MqttProbe user(broker.port(), "plant/#");
    ASSERT_TRUE(user.connected());
    slave->setHolding(1, 22);
    slave->setHolding(6, 50);
    work.write("iotRunTime/AlarmConfiguration.json",
               R"({"upload_func_state":true,"data":[{"index":7,"alarm_level":1,"condition":5,"data_type":0,)"
               R"("limit_value":"10","data_readAddress":{"link":"PLC1","block":"4X","no":"6","sta":1,"length":1}}]})");
    AlarmData::getInstance()->init();
    startForwarding({server(1, broker.port(),
                            {topic("RTDSend", "plant/rtd",
                                   R"({"t":%value_1%,"q":"%quality_1%","v3":"%value_3%","q3":"%quality_3%",)"
                                   R"("sn":"%sn%","ts":%timestamp%,"at":"%datetime%"})"),
                             topic("RTDSend", "plant/bad", R"({"t":%value_9%})"), topic("OnlineMessage", "plant/online", ""),
                             topic("AlarmSend", "plant/alarm", "", R"("config_ids":"7",)")},
                            {})});
    EXPECT_EQ(statuses(1), QList<int>{1});

    const QList<MqttMessage> rtd = user.take("plant/rtd", 2, 5000);
    ASSERT_GE(rtd.size(), 2);
    const QJsonObject first = json(rtd.last().payload);
    EXPECT_EQ(first.value("t").toInt(), 22);
    EXPECT_EQ(first.value("q").toString(), "good");
    EXPECT_EQ(first.value("v3").toString(), "");  // never sent by the device, so nothing to show
    EXPECT_EQ(first.value("q3").toString(), "bad");
    EXPECT_LE(std::abs(first.value("ts").toDouble() + g_zonetime - QDateTime::currentSecsSinceEpoch()), 3);
    EXPECT_EQ(QDateTime::fromString(first.value("at").toString(), "yyyy-MM-dd hh:mm:ss").isValid(), true);
    slave->setHolding(1, 23);
    EXPECT_TRUE(eventually([&] { return json(user.take("plant/rtd", 1, 100).last().payload).value("t").toInt() == 23; }));
    EXPECT_EQ(json(user.take("plant/online", 1, 100).value(0).payload).value("status").toString(), "online");

    // A template that is no JSON once filled goes nowhere, not even to the cache.
    EXPECT_TRUE(log.contains("not find rtd code :9"));
    EXPECT_TRUE(log.contains(R"(topic:plant/bad {"t":%value_9%} paser fail)"));
    EXPECT_TRUE(user.take("plant/bad", 1, 10).isEmpty());
    EXPECT_EQ(mgr->client(1)->cachedRows(), 0u);

    QList<MqttMessage> alarms = user.take("plant/alarm", 1, 5000);
    ASSERT_EQ(alarms.size(), 1);
    EXPECT_EQ(json(alarms.at(0).payload).value("alarm_type").toString(), "ON");
    EXPECT_EQ(json(alarms.at(0).payload).value("value").toString(), "50");
    EXPECT_EQ(json(alarms.at(0).payload).value("alarm").toInt(), 7);
    slave->setHolding(6, 0);
    alarms = user.take("plant/alarm", 2, 5000);
    ASSERT_EQ(alarms.size(), 2);
    EXPECT_EQ(json(alarms.at(1).payload).value("alarm_type").toString(), "OFF");
}

TEST_F(Forwarding, SubscriptionsWriteTheDeviceAndRebootThroughThePath)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    // Only a fake reboot can be reached: it comes first on the PATH.
    box.write("/bin/reboot", "#!/bin/sh\necho rebooted >> \"$LUMBRA_SYSROOT/reboots\"\n");
    const QString fake = box.path() + "/bin/reboot";
    QFile::setPermissions(fake, QFile::permissions(fake) | QFile::ExeOwner);
    setenv("PATH", (box.path().toLocal8Bit() + "/bin:" + qgetenv("PATH")).constData(), 1);
    startForwarding({server(1, broker.port(), {},
                            {topic("WriteRealData", "plant/write", ""), topic("Reboot", "plant/reboot", "")})});
    ASSERT_EQ(statuses(1), QList<int>{1});
    MqttProbe user(broker.port(), "none");
    ASSERT_TRUE(user.connected());

    user.publish("plant/write", R"({"data":[{"data_code":"2","data_value":"77"},{"data_code":"99","data_value":"1"}]})");
    EXPECT_TRUE(eventually([&] { return slave->holding(2) == 77; }));
    user.publish("plant/reboot", "{}");
    EXPECT_TRUE(eventually([&] { return readFile(box.path() + "/reboots") == "rebooted\n"; }));
}

TEST_F(Forwarding, BrokerOutageIsCachedAndDrainedInOrder)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    auto user = std::make_unique<MqttProbe>(broker.port(), "plant/#");
    ASSERT_TRUE(user->connected());
    startForwarding({server(1, broker.port(), {topic("RTDSend", "plant/tick", R"({"ts":%timestamp%})")},
                            {topic("WriteRealData", "plant/write", "")})});
    ASSERT_EQ(statuses(1), QList<int>{1});
    ASSERT_EQ(user->take("plant/tick", 2, 5000).size(), 2);

    broker.stop();
    EXPECT_EQ(statuses(1), QList<int>{0});
    EXPECT_TRUE(eventually([&] { return mgr->client(1)->cachedRows() >= 2; }));
    QList<MqttMessage> got = user->all();
    ASSERT_TRUE(broker.start());
    user = std::make_unique<MqttProbe>(broker.port(), "plant/#");
    ASSERT_TRUE(user->connected());
    // One report each way, however often the client retried meanwhile.
    EXPECT_EQ(statuses(1, 15000), QList<int>{1});
    EXPECT_TRUE(eventually([&] { return mgr->client(1)->cachedRows() == 0; }, 10000));
    user->publish("plant/write", R"([{"data_code":"2","data_value":"5"}])");
    EXPECT_TRUE(eventually([&] { return slave->holding(2) == 5; }));
    EXPECT_TRUE(statuses(1, 500).isEmpty());

    // Every second from before the outage to now arrived once, the cached
    // ones oldest first.
    got += user->all();
    QList<qint64> seconds;
    for (const MqttMessage &m : qAsConst(got))
        if (m.topic == "plant/tick")
            seconds << json(m.payload).value("ts").toVariant().toLongLong();
    QList<qint64> cached;
    for (int i = 1; i < seconds.size(); ++i)
        if (seconds.at(i) < seconds.at(i - 1))
            cached << seconds.at(i);
    std::sort(seconds.begin(), seconds.end());
    for (int i = 1; i < seconds.size(); ++i)
        EXPECT_EQ(seconds.at(i), seconds.at(i - 1) + 1) << "at " << i;
    EXPECT_LE(cached.size(), 1) << "cached rows arrived out of order";
}

TEST_F(Forwarding, RefusedAccountIsNotRetriedAndAGoodOneConnects)
{
    MosquittoBroker broker("plant", "s3cret");
    ASSERT_TRUE(broker.start());
    const QString good = R"("use_authentication":true,"user_name":"plant","pass_word":"s3cret",)";
    const QString bad = R"("use_authentication":true,"user_name":"plant","pass_word":"wrong",)";
    startForwarding({server(1, broker.port(), {}, {}, good), server(2, broker.port(), {}, {}, bad)});
    EXPECT_EQ(statuses(1), QList<int>{1});
    // Past the first reconnect delay of 5 s.
    QThread::msleep(6500);
    EXPECT_EQ(log.count("clientID:box2 MOSQ_ERR_CONN_REFUSED"), 1);
    EXPECT_EQ(broker.refusals(), 1);
    EXPECT_TRUE(mgr->client(1)->isConnected());
    EXPECT_FALSE(mgr->client(2)->isConnected());
}

TEST_F(Forwarding, OnlineEditsRebuildTheClientsAndAcknowledge)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    MqttProbe user(broker.port(), "plant/#");
    ASSERT_TRUE(user.connected());
    mgr->init();
    EXPECT_EQ(mgr->clientCount(), 0);
    EXPECT_TRUE(log.contains("./iotRunTime/ServerCfg.json open fail"));

    const char *serverSet = "/DevRecv/OnlineMqttServerSet";
    auto acked = [&](const char *ackTopic) {
        const QJsonObject m = agent.receiveTopic(ackTopic, 3000).msg;
        return m.value("operation_type").toString() + " " + m.value("data_index").toString();
    };
    send(serverSet, "{\"operation_type\":");
    send(serverSet, QString(R"({"operation_type":"add","data":[%1]})").arg(server(3, broker.port(), {}, {})));
    EXPECT_EQ(acked("/DevSend/OnlineMqttServerSetAck"), "add 3");
    EXPECT_EQ(statuses(1), QList<int>{1});
    EXPECT_TRUE(log.contains("mqtt server online set data json parse err"));

    const char *topicSet = "/DevRecv/OnlineMqttTopicSet";
    send(topicSet, QString(R"({"operation_type":"add","data":[%1]})")
                       .arg(topic("RTDSend", "plant/late", R"({"v":"%value_1%"})", R"("server_config_id":3,)")));
    EXPECT_EQ(acked("/DevSend/OnlineMqttTopicSetAck"), "add 3");
    EXPECT_EQ(user.take("plant/late", 1, 5000).size(), 1);
    // A server modify without topic lists keeps its topics, in the file too.
    send(serverSet, QString(R"({"operation_type":"modify","data":[%1]})")
                        .arg(QString(R"({"server_config_id":3,"host":"127.0.0.1","port":%1,"client_id":"renamed"})")
                                 .arg(broker.port())));
    EXPECT_EQ(acked("/DevSend/OnlineMqttServerSetAck"), "modify 3");
    // The acknowledgement comes before the rebuild: wait for the new client.
    ASSERT_TRUE(eventually([&] { return log.contains("clientID:renamed m_mosq:"); }));
    ASSERT_TRUE(mgr->client(3));
    EXPECT_EQ(mgr->client(3)->settings().clientId, "renamed");
    EXPECT_EQ(mgr->client(3)->pubTopics().size(), 1);

    send(serverSet, R"({"operation_type":"delete","ids":"3"})");
    EXPECT_EQ(acked("/DevSend/OnlineMqttServerSetAck"), "delete 3");
    EXPECT_TRUE(eventually([&] { return mgr->clientCount() == 0; }));
    EXPECT_TRUE(json(readFile(work.file("iotRunTime/ServerCfg.json"))).value("data").toArray().isEmpty());
}
