// Forwarding as the field treats it. With the cache on, every message of a
// once-a-second topic must arrive once and in order.
#include "mqttforwardfixture.h"

#include "generalFunc/globals.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFileInfo>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

using ForwardingInTheField = ForwardingFixture;

const char kTick[] = R"({"ts":%timestamp%})";

QString withClientId(QString server, int id, const QString &clientId)
{
    return server.replace(QString("\"client_id\":\"box%1\"").arg(id), QString("\"client_id\":\"%1\"").arg(clientId));
}

}  // namespace

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
