// Forwarding to the user's own broker: values, alarms, subscriptions, valid
// JSON whatever the values, refused accounts and online edits.
#include "mqttforwardfixture.h"

#include "generalFunc/globals.h"
#include "tcplink.h"

#include <QDateTime>
#include <QFile>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

using Forwarding = ForwardingFixture;

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
