// Forwarding to the user's own brokers, in process: real mosquitto brokers on
// loopback ports, a libmodbus slave as the device, a nanomsg peer as the
// agent that carries the connection reports to the platform. In the field,
// with the cache on, every message of a once-a-second topic must arrive once
// and in order.
#include "AlarmData/AlarmData.h"
#include "MqttCliManager/MqttCliManager.h"
#include "RealData/RealData.h"
#include "cloudlinkfixture.h"
#include "generalFunc/globals.h"
#include "mosquittobroker.h"
#include "tcplink.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

QString forwardTopic(const char *func, const QString &name, const QString &json, const QString &extra = "")
{
    return QString(R"({"func_type_name":"%1","topic":"%2","send_interval_type":1,%3"json":%4})")
        .arg(func, name, extra,
             QString::fromUtf8(QJsonDocument(QJsonArray{json}).toJson(QJsonDocument::Compact)).mid(1).chopped(1));
}

// Publishes every second, with the cache on; extra goes into the record.
QString forwardServer(int id, int port, const QStringList &pub, const QStringList &sub = {},
                             const QString &extra = "")
{
    return QString(R"({"server_config_id":%1,"host":"127.0.0.1","port":%2,"client_id":"box%1","keep_alive":60,)"
                   R"("push_period":1,"push_unit":0,"use_offline_cache":true,"store_type":2,"cache_num":1000,%3)"
                   R"("publish_topic_data":[%4],"subscribe_topic_data":[%5]})")
        .arg(id)
        .arg(port)
        .arg(extra, pub.join(','), sub.join(','));
}

QJsonObject jsonOf(const QByteArray &text)
{
    return QJsonDocument::fromJson(text).object();
}

// The "ts" of each message on topic, in the order they arrived.
QList<qint64> stamps(const QList<MqttMessage> &messages, const QString &topic)
{
    QList<qint64> out;
    for (const MqttMessage &m : messages)
        if (m.topic == topic)
            out << jsonOf(m.payload).value("ts").toVariant().toLongLong();
    return out;
}

// Empty when the stamps are one a second, each once, in order; otherwise
// where they are not.
QString everySecondOnce(const QList<qint64> &ts)
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

using Forwarding = ForwardingFixture;
using ForwardingInTheField = ForwardingFixture;

const char kTick[] = R"({"ts":%timestamp%})";

QString withClientId(QString server, int id, const QString &clientId)
{
    return server.replace(QString("\"client_id\":\"box%1\"").arg(id), QString("\"client_id\":\"%1\"").arg(clientId));
}

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
    startForwarding({forwardServer(1, broker.port(),
                            {forwardTopic("RTDSend", "plant/rtd",
                                   R"({"t":%value_1%,"q":"%quality_1%","v3":"%value_3%","q3":"%quality_3%",)"
                                   R"("sn":"%sn%","ts":%timestamp%,"at":"%datetime%"})"),
                             forwardTopic("RTDSend", "plant/bad", R"({"t":%value_9%})"), forwardTopic("OnlineMessage", "plant/online", ""),
                             forwardTopic("AlarmSend", "plant/alarm", "", R"("config_ids":"7",)")},
                            {})});
    EXPECT_EQ(statuses(1), QList<int>{1});

    const QList<MqttMessage> rtd = user.take("plant/rtd", 2, 5000);
    ASSERT_GE(rtd.size(), 2);
    const QJsonObject first = jsonOf(rtd.last().payload);
    EXPECT_EQ(first.value("t").toInt(), 22);
    EXPECT_EQ(first.value("q").toString(), "good");
    EXPECT_TRUE(first.value("v3").isNull());  // never sent by the device, so nothing to show
    EXPECT_EQ(first.value("q3").toString(), "bad");
    EXPECT_LE(std::abs(first.value("ts").toDouble() + g_zonetime - QDateTime::currentSecsSinceEpoch()), 3);
    EXPECT_EQ(QDateTime::fromString(first.value("at").toString(), "yyyy-MM-dd hh:mm:ss").isValid(), true);
    // The platform gets values every 30 s; the topic has them every second.
    slave->setHolding(1, 23);
    EXPECT_TRUE(eventually([&] { return jsonOf(user.take("plant/rtd", 1, 100).last().payload).value("t").toInt() == 23; },
                           4000));
    EXPECT_EQ(jsonOf(user.take("plant/online", 1, 100).value(0).payload).value("status").toString(), "online");

    // A template that is no JSON once filled goes nowhere, not even to the cache.
    EXPECT_TRUE(log.contains("not find rtd code :9"));
    EXPECT_TRUE(log.contains(R"(topic:plant/bad {"t":%value_9%} paser fail)"));
    EXPECT_TRUE(user.take("plant/bad", 1, 10).isEmpty());
    EXPECT_EQ(mgr->client(1)->cachedRows(), 0u);

    QList<MqttMessage> alarms = user.take("plant/alarm", 1, 5000);
    ASSERT_EQ(alarms.size(), 1);
    EXPECT_EQ(jsonOf(alarms.at(0).payload).value("alarm_type").toString(), "ON");
    EXPECT_EQ(jsonOf(alarms.at(0).payload).value("value").toString(), "50");
    EXPECT_EQ(jsonOf(alarms.at(0).payload).value("alarm").toInt(), 7);
    slave->setHolding(6, 0);
    alarms = user.take("plant/alarm", 2, 5000);
    ASSERT_EQ(alarms.size(), 2);
    EXPECT_EQ(jsonOf(alarms.at(1).payload).value("alarm_type").toString(), "OFF");
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
    startForwarding({forwardServer(1, broker.port(), {},
                            {forwardTopic("WriteRealData", "plant/write", ""), forwardTopic("Reboot", "plant/reboot", "")})});
    ASSERT_EQ(statuses(1), QList<int>{1});
    MqttProbe user(broker.port(), "none");
    ASSERT_TRUE(user.connected());

    user.publish("plant/write", R"({"data":[{"data_code":"2","data_value":"77"},{"data_code":"99","data_value":"1"}]})");
    EXPECT_TRUE(eventually([&] { return slave->holding(2) == 77; }));
    user.publish("plant/reboot", "{}");
    EXPECT_TRUE(eventually([&] { return readFile(box.path() + "/reboots") == "rebooted\n"; }));
}

TEST_F(Forwarding, EveryPayloadIsJsonWhateverTheValues)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    MqttProbe user(broker.port(), "plant/#");
    ASSERT_TRUE(user.connected());
    // Text "a<tab>b"" in point 4, a NaN float in point 5; point 3 never reads.
    slave->setHolding(10, 'a' << 8 | '\t');
    slave->setHolding(11, 'b' << 8 | '"');
    slave->setHolding(20, 0x7FC0);
    slave->setHolding(21, 0);
    startForwarding({forwardServer(1, broker.port(),
                                   {forwardTopic("RTDSend", "plant/values",
                                                 R"({"text":"%value_4%","bare":%value_4%,"nan":%value_5%,)"
                                                 R"("nan_s":"%value_5%","gone":%value_3%,"gone_s":"%value_3%",)"
                                                 R"("label":"t=%value_4%;g=%value_3%;50%","ts":%timestamp%})")})});
    ASSERT_TRUE(connected(1, 8000));
    // Until the link has polled the points they are null.
    const auto last = [&] {
        const QList<MqttMessage> got = user.take("plant/values", 1, 100);
        return got.isEmpty() ? QJsonObject() : jsonOf(got.last().payload);
    };
    ASSERT_TRUE(eventually([&] { return last().value("text") == "a\tb\""; }, 8000));
    const QJsonObject m = last();
    EXPECT_EQ(m.value("bare").toString(), "a\tb\"");
    for (const char *key : {"nan", "nan_s", "gone", "gone_s"})
        EXPECT_TRUE(m.value(key).isNull()) << key;
    EXPECT_EQ(m.value("label").toString(), "t=a\tb\";g=;50%");

    slave->setHolding(20, 0x7F80);  // infinity
    QThread::msleep(2000);
    slave->setHolding(20, 0x3FC0);  // 1.5
    EXPECT_TRUE(eventually([&] { return last().value("nan") == 1.5; }));
    const QList<MqttMessage> got = user.all();
    for (const MqttMessage &msg : qAsConst(got)) {
        QJsonParseError error;
        QJsonDocument::fromJson(msg.payload, &error);
        EXPECT_EQ(error.error, QJsonParseError::NoError) << msg.payload.constData();
    }
    EXPECT_FALSE(log.contains("paser fail"));
}

// Refused accounts, MQTT 3.1.1 and 5, are asked once; with DEBUG logging on,
// no password a server was given shows in the log, from the file or online.
TEST_F(Forwarding, RefusedAccountsAreNotRetriedAndNoPasswordIsLogged)
{
    MosquittoBroker broker("plant", "s3cret-good");
    ASSERT_TRUE(broker.start());
    const QString account = R"("use_authentication":true,"user_name":"plant","pass_word":"%1",%2)";
    startForwarding({forwardServer(1, broker.port(), {}, {}, account.arg("s3cret-good", "")),
                     forwardServer(2, broker.port(), {}, {}, account.arg("s3cret-wrong", "")),
                     forwardServer(3, broker.port(), {}, {}, account.arg("s3cret-wrong5", R"("mqtt_version":5,)"))});
    EXPECT_EQ(statuses(1), QList<int>{1});
    ASSERT_TRUE(eventually([&] { return mgr->client(3)->refused(); }));
    // Past the first retry delay of 5 s.
    QThread::msleep(6500);
    EXPECT_EQ(log.count("clientID:box2 MOSQ_ERR_CONN_REFUSED"), 1);
    EXPECT_EQ(log.count("clientID:box3 MOSQ_ERR_CONN_REFUSED"), 1);
    EXPECT_TRUE(log.contains("reason_code:135"));
    EXPECT_EQ(broker.refusals(), 2);
    EXPECT_TRUE(mgr->client(1)->isConnected());
    EXPECT_FALSE(mgr->client(2)->isConnected() || mgr->client(3)->isConnected());

    const QString added = forwardServer(4, broker.port(), {}, {}, account.arg("s3cret-online", ""));
    send("/DevRecv/OnlineMqttServerSet", QString(R"({"operation_type":"add","data":[%1]})").arg(added));
    EXPECT_TRUE(eventually([&] { return mgr->client(4) && mgr->client(4)->refused(); }));
    EXPECT_FALSE(log.contains("s3cret")) << log.text().toLocal8Bit().constData();
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
    send(serverSet, QString(R"({"operation_type":"add","data":[%1]})").arg(forwardServer(3, broker.port(), {}, {})));
    EXPECT_EQ(acked("/DevSend/OnlineMqttServerSetAck"), "add 3");
    EXPECT_EQ(statuses(1), QList<int>{1});
    EXPECT_TRUE(log.contains("mqtt server online set data json parse err"));

    const char *topicSet = "/DevRecv/OnlineMqttTopicSet";
    send(topicSet, QString(R"({"operation_type":"add","data":[%1]})")
                       .arg(forwardTopic("RTDSend", "plant/late", R"({"v":"%value_1%"})", R"("server_config_id":3,)")));
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
    EXPECT_TRUE(jsonOf(readFile(work.file("iotRunTime/ServerCfg.json"))).value("data").toArray().isEmpty());
}

TEST_F(ForwardingInTheField, BrokerStartedLateGetsTheFirstSecondsFromTheCache)
{
    MosquittoBroker broker;
    const qint64 boxStart = QDateTime::currentSecsSinceEpoch();
    startForwarding({forwardServer(1, broker.port(), {forwardTopic("RTDSend", "plant/tick", kTick)})});
    // The first attempt and the one 5 s later find no broker.
    ASSERT_TRUE(failedThenWaits(broker.port(), 10, 9000));
    EXPECT_NEAR(QDateTime::currentSecsSinceEpoch() - boxStart, 5, 1);
    EXPECT_GE(mgr->client(1)->cachedRows(), 3u);
    ASSERT_TRUE(broker.start());
    QElapsedTimer sinceBroker;
    sinceBroker.start();
    MqttProbe user(broker.port(), "plant/#");
    ASSERT_TRUE(user.connected());

    ASSERT_TRUE(connected(1, 13000));
    EXPECT_LE(sinceBroker.elapsed(), 11000) << "not connected within one step of the back-off";
    EXPECT_EQ(statuses(1), QList<int>{1});
    ASSERT_TRUE(eventually([&] { return mgr->client(1)->cachedRows() == 0; }, 10000));
    const int drained = user.all().size();
    user.take("plant/tick", drained + 2, 5000);
    const QList<qint64> ts = stamps(user.all(), "plant/tick");
    ASSERT_FALSE(ts.isEmpty());
    EXPECT_EQ(everySecondOnce(ts), "");
    EXPECT_LE(ts.first() + g_zonetime, boxStart + 2) << "the first seconds are missing";
}

TEST_F(ForwardingInTheField, BrokerHungThenKilledLosesNothingWithTheCache)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    auto user = std::make_unique<MqttProbe>(broker.port(), "plant/#");
    ASSERT_TRUE(user->connected());
    startForwarding({forwardServer(1, broker.port(), {forwardTopic("RTDSend", "plant/tick", kTick)},
                                   {forwardTopic("WriteRealData", "plant/write", "")})});
    ASSERT_EQ(statuses(1), QList<int>{1});
    ASSERT_EQ(user->take("plant/tick", 2, 5000).size(), 2);

    // Hung, the broker keeps the connection open and acknowledges nothing.
    ASSERT_TRUE(broker.pause());
    QThread::msleep(20000);
    EXPECT_TRUE(mgr->client(1)->isConnected());
    QList<MqttMessage> got = user->all();
    broker.kill();
    EXPECT_EQ(statuses(1), QList<int>{0});
    EXPECT_GE(mgr->client(1)->cachedRows(), 18u);

    ASSERT_TRUE(broker.start());
    user = std::make_unique<MqttProbe>(broker.port(), "plant/#");
    ASSERT_TRUE(user->connected());
    EXPECT_EQ(statuses(1, 15000), QList<int>{1});
    ASSERT_TRUE(eventually([&] { return mgr->client(1)->cachedRows() == 0; }, 10000));
    // Subscriptions are renewed on the new connection.
    user->publish("plant/write", R"([{"data_code":"2","data_value":"5"}])");
    EXPECT_TRUE(eventually([&] { return slave->holding(2) == 5; }));
    const int drained = user->all().size();
    user->take("plant/tick", drained + 2, 5000);
    got += user->all();
    EXPECT_EQ(everySecondOnce(stamps(got, "plant/tick")), "");
    // One report each way, however often the client retried meanwhile.
    EXPECT_TRUE(statuses(1, 500).isEmpty());
}

// Beside a good topic: one the broker's ACL refuses and one larger than the
// broker takes (MQTT 5 tells both), and one with a wildcard.
TEST_F(ForwardingInTheField, BadTopicsAreDroppedWhileAGoodOneGoesThroughAnOutage)
{
    MosquittoBroker broker;
    broker.addConfig("max_packet_size 600\n");
    broker.setAcl("topic write plant/good\ntopic write plant/big\ntopic read plant/#\n");
    ASSERT_TRUE(broker.start());
    auto user = std::make_unique<MqttProbe>(broker.port(), "plant/#");
    ASSERT_TRUE(user->connected());
    const QString pad(700, 'x');
    startForwarding({forwardServer(1, broker.port(),
                                   {forwardTopic("RTDSend", "plant/good", kTick),
                                    forwardTopic("RTDSend", "plant/denied", kTick),
                                    forwardTopic("RTDSend", "plant/big", QString(R"({"ts":%timestamp%,"pad":"%1"})").arg(pad)),
                                    forwardTopic("RTDSend", "plant/+/bad", kTick)},
                                   {}, R"("mqtt_version":5,)")});
    EXPECT_TRUE(log.contains(R"(publish topic "plant/+/bad" refused: not a valid publish topic)"));
    ASSERT_TRUE(connected(1, 8000));
    ASSERT_EQ(user->take("plant/good", 2, 5000).size(), 2);

    broker.stop();
    ASSERT_TRUE(eventually([&] { return !mgr->client(1)->isConnected(); }));
    QThread::msleep(15000);
    EXPECT_GE(mgr->client(1)->cachedRows(), 3 * 14u);
    QList<MqttMessage> got = user->all();
    ASSERT_TRUE(broker.start());
    user = std::make_unique<MqttProbe>(broker.port(), "plant/#");
    ASSERT_TRUE(user->connected());
    // Back in the third step of the back-off: 5, 10 then 20 s.
    ASSERT_TRUE(connected(1, 25000));
    ASSERT_TRUE(eventually([&] { return mgr->client(1)->cachedRows() == 0; }, 10000));
    const int drained = user->all().size();
    user->take("plant/good", drained + 2, 5000);
    got += user->all();

    EXPECT_EQ(everySecondOnce(stamps(got, "plant/good")), "");
    for (const MqttMessage &m : qAsConst(got))
        EXPECT_EQ(m.topic, "plant/good");
    EXPECT_TRUE(log.contains("topic:plant/denied message dropped: refused by the broker"));
    EXPECT_TRUE(log.contains("topic:plant/big message dropped: "));
    EXPECT_TRUE(log.contains("topic:plant/big message dropped: cached message cannot be sent"));
}

TEST_F(ForwardingInTheField, ServersWithOneClientIdKeepTheirMessagesApart)
{
    MosquittoBroker up, down;
    ASSERT_TRUE(up.start());
    MqttProbe upUser(up.port(), "#");
    ASSERT_TRUE(upUser.connected());
    startForwarding({withClientId(forwardServer(1, up.port(), {forwardTopic("RTDSend", "up/tick", kTick)}), 1, "same"),
                     withClientId(forwardServer(2, down.port(), {forwardTopic("RTDSend", "down/tick", kTick)}), 2, "same")});
    ASSERT_TRUE(connected(1, 8000));
    ASSERT_TRUE(failedThenWaits(down.port(), 10, 9000));
    EXPECT_EQ(mgr->client(1)->cachedRows(), 0u);
    EXPECT_GE(mgr->client(2)->cachedRows(), 3u);
    EXPECT_TRUE(QFileInfo::exists(work.file("mqttForwardDir/server1Mqtt.db")));
    EXPECT_TRUE(QFileInfo::exists(work.file("mqttForwardDir/server2Mqtt.db")));

    ASSERT_TRUE(down.start());
    MqttProbe downUser(down.port(), "#");
    ASSERT_TRUE(downUser.connected());
    ASSERT_TRUE(connected(2, 13000));
    ASSERT_TRUE(eventually([&] { return mgr->client(2)->cachedRows() == 0; }, 10000));
    QThread::msleep(1500);
    for (const MqttMessage &m : upUser.all())
        EXPECT_EQ(m.topic, "up/tick");
    for (const MqttMessage &m : downUser.all())
        EXPECT_EQ(m.topic, "down/tick");
    EXPECT_EQ(everySecondOnce(stamps(downUser.all(), "down/tick")), "");
    EXPECT_EQ(everySecondOnce(stamps(upUser.all(), "up/tick")), "");
}

// A broker that speaks only TLS and wants client certificates: the right CA
// and host work; a certificate for another host, or one signed by nobody we
// trust, is refused unless tls_insecure waives the host check.
TEST_F(ForwardingInTheField, TlsChecksTheBrokerCertificate)
{
    TestPki pki;
    ASSERT_TRUE(pki.ok());
    ASSERT_TRUE(pki.make("broker", "IP:127.0.0.1") && pki.make("elsewhere", "DNS:elsewhere.example") &&
                pki.make("nobody", "IP:127.0.0.1", true) && pki.make("box", "DNS:box") &&
                pki.encryptKey("box", "k3y-pass"));
    MosquittoBroker broker;
    broker.setPlain(false);
    const auto listener = [&](const char *name) {
        return broker.addTlsListener({pki.caFile(), pki.file(QString(name) + ".crt"), pki.file(QString(name) + ".key"), true});
    };
    const int good = listener("broker"), wrongHost = listener("elsewhere"), selfSigned = listener("nobody");
    ASSERT_TRUE(broker.start());
    MqttProbe user(good, "plant/#", {pki.caFile(), pki.file("box.crt"), pki.file("box.key")});
    ASSERT_TRUE(user.connected());

    const QString tls = QString(R"("cafile":"%1","certfile":"%2","keyfile":"%3","keyfile_password":"k3y-pass",%4)")
                            .arg(pki.caFile(), pki.file("box.crt"), pki.file("box.enc.key"));
    startForwarding({forwardServer(1, good, {forwardTopic("RTDSend", "plant/one", kTick)}, {}, tls.arg("")),
                     forwardServer(2, wrongHost, {forwardTopic("RTDSend", "plant/two", kTick)}, {}, tls.arg("")),
                     forwardServer(3, selfSigned, {forwardTopic("RTDSend", "plant/three", kTick)}, {}, tls.arg("")),
                     forwardServer(4, wrongHost, {forwardTopic("RTDSend", "plant/four", kTick)}, {},
                                   tls.arg(R"("tls_insecure":true,)"))});
    EXPECT_TRUE(connected(1, 8000));
    EXPECT_TRUE(connected(4, 8000));
    EXPECT_EQ(user.take("plant/one", 1, 5000).size(), 1);
    ASSERT_TRUE(failedThenWaits(wrongHost, 10, 9000));
    ASSERT_TRUE(failedThenWaits(selfSigned, 10, 9000));
    EXPECT_FALSE(mgr->client(2)->isConnected() || mgr->client(3)->isConnected());
    EXPECT_GE(log.count("certificate verify failed"), 4) << log.text().toLocal8Bit().constData();
    for (const MqttMessage &m : user.all())
        EXPECT_TRUE(m.topic == "plant/one" || m.topic == "plant/four") << m.topic.toLocal8Bit().constData();
    EXPECT_FALSE(log.contains("k3y-pass"));
}
