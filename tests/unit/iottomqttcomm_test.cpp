#include "IotToMqttComm/IotToMqttComm.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "Outbox/Outbox.h"
#include "agentpeer.h"
#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "modbusslave.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QStringList>
#include <QThread>

#include <chrono>
#include <future>
#include <memory>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

QMutex g_handledMutex;
QStringList g_handled;

int recordWriteData(const QString &payload)
{
    QMutexLocker lock(&g_handledMutex);
    g_handled << payload;
    return 0;
}

QStringList handled(bool clear = false)
{
    QMutexLocker lock(&g_handledMutex);
    QStringList list = g_handled;
    if (clear)
        g_handled.clear();
    return list;
}

int statusWord()
{
    uint16_t word = 0xffff;
    communication::getInstance()->getCommValue("LW", "LW", 60830, 0, 1, reinterpret_cast<uchar *>(&word));
    return word;
}

IotToMqttComm *bridge()
{
    return IotToMqttComm::getInstance();
}

}  // namespace

// The process has one bridge: it is started once, before its agent is up, and
// every case shares it and the agent's end.
class AgentBridge : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_box = std::make_unique<BoxRoot>();
        s_box->write("/usr/brenta/iot_conf/sn.conf", "GW0042\n");
        deviceInfo::getInstance()->init();
        MqttMsgEvent::MqttDealMapInit();
        MqttMsgEvent::setHandler("/DevRecv/WriteData", &recordWriteData);

        QString url = QString("tcp://127.0.0.1:%1").arg(freeTcpPort());
        qputenv("LUMBRA_AGENT_URL", url.toUtf8());
        // init() blocks on the status request until the agent binds.
        std::future<void> started = std::async(std::launch::async, [] { bridge()->init(); });
        QThread::msleep(300);
        s_peer = std::make_unique<AgentPeer>(url);
        s_first = s_peer->receive(5000);
        s_initReturned = started.wait_for(std::chrono::seconds(6)) == std::future_status::ready;
    }

    static void TearDownTestSuite()
    {
        EXPECT_TRUE(bridge()->stop(5000));
        s_peer.reset();
        s_box.reset();
    }

    // A case that failed with the agent away must not take the others along.
    void SetUp() override
    {
        if (!s_peer->bound()) {
            ASSERT_TRUE(s_peer->bind());
        }
    }

    static inline std::unique_ptr<BoxRoot> s_box;
    static inline std::unique_ptr<AgentPeer> s_peer;
    static inline QByteArray s_first;
    static inline bool s_initReturned = false;
};

TEST_F(AgentBridge, AsksForTheMqttStateOnceAtStart)
{
    EXPECT_TRUE(s_initReturned);
    EXPECT_EQ(s_first, "{\"topic\":\"mqtt_status_req\"}");

    QElapsedTimer t;
    t.start();
    bridge()->init();
    EXPECT_LT(t.elapsed(), 1000);
    EXPECT_TRUE(s_peer->receive(300).isEmpty());
}

TEST_F(AgentBridge, UploadsTravelInTheAgentsEnvelope)
{
    EXPECT_GT(bridge()->MqttMsgSend("/DevSend/RTD", "{\"a\":1}", true, 1), 0);

    QJsonObject env = s_peer->receiveEnvelope(3000);
    EXPECT_EQ(env.value("topic").toString(), "/GW0042_" + g_IotVersion + "/DevSend/RTD");
    EXPECT_EQ(env.value("qos").toInt(), 1);
    EXPECT_EQ(env.value("msg").toString(), "{\"a\":1}");
    EXPECT_TRUE(env.value("zip").isBool() && env.value("zip").toBool());
    EXPECT_EQ(env.size(), 4);
}

TEST_F(AgentBridge, StatusNotificationReachesFlagAndLocalWord)
{
    LogCapture log;
    ASSERT_TRUE(s_peer->send("{\"topic\":\"mqtt_status_Notification\",\"status\":true}"));
    ASSERT_TRUE(eventually([&] { return log.contains("get mqtt status:1"); }, 3000));
    EXPECT_TRUE(bridge()->MqttStatus());
    EXPECT_EQ(statusWord(), 1);

    ASSERT_TRUE(s_peer->send("{\"topic\":\"mqtt_status_Notification\"}"));
    ASSERT_TRUE(eventually([&] { return log.contains("get mqtt status:0"); }, 3000));
    EXPECT_FALSE(bridge()->MqttStatus());
    EXPECT_EQ(statusWord(), 0);
}

TEST_F(AgentBridge, TakesMessagesLargerThanAMegabyte)
{
    // A full configuration for thousands of points is this large.
    handled(true);
    const QByteArray text(3 * 1024 * 1024, 'x');
    ASSERT_TRUE(s_peer->send("{\"topic\":\"/DevRecv/WriteData\",\"msg\":\"" + text + "\"}", 5000));
    ASSERT_TRUE(eventually([] { return !handled().isEmpty(); }, 5000));
    EXPECT_EQ(handled().first().size(), text.size());
}

TEST_F(AgentBridge, DispatchesOnlyExactKnownTopicsAndOutlivesBadMessages)
{
    LogCapture log;
    handled(true);
    const char *const messages[] = {
        "not json {",
        "[1,2]",
        "{\"msg\":\"no topic\"}",
        "{\"topic\":\"/DevRecv/MsgAck\",\"msg\":\"not served yet\"}",
        "{\"topic\":\"/devrecv/writedata\",\"msg\":\"wrong case\"}",
        "{\"topic\":\"/DevRecv/Unknown\",\"msg\":\"unknown\"}",
        "{\"topic\":\"/DevRecv/WriteData\",\"msg\":\"{\\\"k\\\":2}\"}",
    };
    for (const char *m : messages)
        ASSERT_TRUE(s_peer->send(m));

    // Messages are served in order, so the last one in means all were seen.
    ASSERT_TRUE(eventually([] { return !handled().isEmpty(); }, 3000));
    EXPECT_EQ(handled(), QStringList{"{\"k\":2}"});
    EXPECT_TRUE(log.contains("json data:not json { parse fail"));
    EXPECT_TRUE(log.contains("json data:[1,2] parse fail"));
}

// Nothing that posts ever waits for the agent: the sender notices that it is
// gone, the cloud goes down, and what is kept waits for its return.
TEST_F(AgentBridge, AnAgentThatGoesAwayTakesTheCloudDownAndKeepsTheRestWaiting)
{
    LogCapture log;
    ASSERT_TRUE(s_peer->send("{\"topic\":\"mqtt_status_Notification\",\"status\":true}"));
    ASSERT_TRUE(eventually([] { return bridge()->MqttStatus(); }, 3000));
    s_peer->close();
    QThread::msleep(300);  // the gateway's side notices the hang-up

    QElapsedTimer t;
    t.start();
    EXPECT_GT(bridge()->MqttMsgSend("/DevSend/SoftwareOperationAck", "{\"kept\":1}", false, 0), 0);
    EXPECT_LT(t.elapsed(), 100);
    EXPECT_TRUE(eventually([] { return !bridge()->MqttStatus() && statusWord() == 0; }, 6000));
    EXPECT_TRUE(log.contains("agent does not take messages: cloud link down"));
    // Its service keeps a stored message and sends it again once the cloud is back.
    EXPECT_FALSE(Outbox::getInstance()->post("/DevSend/Alarm", "{}", false, 0, Outbox::Stored));

    ASSERT_TRUE(s_peer->bind());
    EXPECT_EQ(s_peer->receiveTopic("/DevSend/SoftwareOperationAck", 5000).msg.value("kept").toInt(), 1);
    ASSERT_TRUE(s_peer->send("{\"topic\":\"mqtt_status_Notification\",\"status\":true}"));
    EXPECT_TRUE(eventually([] { return bridge()->MqttStatus() && statusWord() == 1; }, 3000));
}
