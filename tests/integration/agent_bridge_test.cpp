// lumbra-agent between a real mosquitto and a nanomsg peer playing the gateway,
// and supervising a gateway command.
#include "agentrun.h"
#include "fdend.h"
#include "gatewaypeer.h"
#include "mosquittobroker.h"
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <memory>
#include <vector>

using namespace lumbra::test;

namespace {

QByteArray envelope(const QString &topic, const QString &msg, int qos, bool zip)
{
    const QJsonObject obj{{"topic", topic}, {"msg", msg}, {"qos", qos}, {"zip", zip}};
    return QJsonDocument(obj).toJson(QJsonDocument::Compact);
}

QByteArray inflate(const QByteArray &data)
{
    QByteArray out(1 << 16, '\0');
    uLongf size = static_cast<uLongf>(out.size());
    if (uncompress(reinterpret_cast<Bytef *>(out.data()), &size, reinterpret_cast<const Bytef *>(data.constData()),
                   static_cast<uLong>(data.size())) != Z_OK)
        return "<not a zlib stream>";
    return out.left(static_cast<int>(size));
}

// Lets time pass while the agent works on its own.
void watch(AgentRun &agent, int ms)
{
    agent.waitUntil([] { return false; }, ms);
}

class AgentBridge : public ::testing::Test {
protected:
    MosquittoBroker broker;
    std::unique_ptr<MqttProbe> cloud;
    std::unique_ptr<AgentRun> agent;

    void SetUp() override
    {
        ASSERT_TRUE(broker.start());
        cloud = std::make_unique<MqttProbe>(broker.port(), "#");
        ASSERT_TRUE(cloud->connected());
        agent = std::make_unique<AgentRun>(LUMBRA_AGENT_BINARY, broker.port());
    }
    bool startAgent(const QString &ini = QString())
    {
        agent->addConfig(ini);
        return agent->start() && agent->process().waitForOutput("connected", 5000);
    }
    QString topic(const char *shortTopic) const { return agent->prefix() + shortTopic; }
    bool status(GatewayPeer &gw, bool want)
    {
        const QJsonObject n = gw.receiveTopic("mqtt_status_Notification", 8000);
        return !n.isEmpty() && n.value("status").toBool(!want) == want;
    }
};

}  // namespace

TEST_F(AgentBridge, UploadsArePublishedAndCloudCommandsReachTheGateway)
{
    ASSERT_TRUE(startAgent());
    GatewayPeer gw(agent->url());
    // Queued before any gateway was there: the agent started, its broker
    // connected.
    EXPECT_TRUE(status(gw, false));
    EXPECT_TRUE(status(gw, true));

    const QString text = QString::fromUtf8(R"({"sn_code":"x","data":[{"code":1,"data":"Grüße"}]})");
    ASSERT_TRUE(gw.send(envelope(topic("/DevSend/RTD"), text, 1, false)));
    ASSERT_TRUE(gw.send(envelope(topic("/DevSend/RTDCompress"), text.repeated(50), 7, true)));
    EXPECT_EQ(cloud->take(topic("/DevSend/RTD"), 1, 3000).value(0).payload, text.toUtf8());
    const QByteArray zipped = cloud->take(topic("/DevSend/RTDCompress"), 1, 3000).value(0).payload;
    EXPECT_LT(zipped.size(), text.toUtf8().size() * 50);
    EXPECT_EQ(inflate(zipped), text.repeated(50).toUtf8());

    const QByteArray ack = R"({"reqTopic":"/DevSend/Alarm","reqId":"17"})";
    ASSERT_TRUE(cloud->publish(topic("/DevRecv/MsgAck"), ack));
    const QJsonObject got = gw.receiveTopic("/DevRecv/MsgAck", 3000);
    EXPECT_EQ(got, (QJsonObject{{"topic", "/DevRecv/MsgAck"}, {"msg", QString(ack)}}));

    // A gateway that is away (restarting) gets its commands when it is back.
    gw.close();
    ASSERT_TRUE(cloud->publish(topic("/DevRecv/WriteData"), "{\"n\":1}"));
    ASSERT_TRUE(agent->process().waitForOutput("broker -> gateway /DevRecv/WriteData", 3000));
    ASSERT_TRUE(gw.connect());
    EXPECT_EQ(gw.receiveTopic("/DevRecv/WriteData", 3000).value("msg").toString(), "{\"n\":1}");
}

TEST_F(AgentBridge, MalformedEnvelopesAreDroppedAndTheAgentGoesOn)
{
    ASSERT_TRUE(startAgent());
    GatewayPeer gw(agent->url());
    const QByteArray bad[] = {"not json", "[1,2]", R"({"qos":1,"msg":"x"})", R"({"topic":5,"msg":"x"})",
                              R"({"topic":"","msg":"x"})", R"({"topic":"/a","msg":{"x":1}})", R"({"topic":"/a"})"};
    for (const QByteArray &b : bad)
        ASSERT_TRUE(gw.send(b));
    ASSERT_TRUE(gw.send(envelope("/a/+/wild", "x", 0, false)));
    ASSERT_TRUE(gw.send(envelope(topic("/DevSend/Alarm"), "still here", 0, false)));
    EXPECT_EQ(cloud->take(topic("/DevSend/Alarm"), 1, 3000).value(0).payload, "still here");
    ASSERT_TRUE(agent->process().waitForOutput(": still here", 3000));
    EXPECT_EQ(agent->count("dropped malformed envelope"), int(std::size(bad)));
    EXPECT_EQ(agent->count("dropped message with invalid topic"), 1);
    EXPECT_TRUE(agent->process().running());
}

TEST_F(AgentBridge, ABrokerOutageIsReportedAndWhatIsKeptGoesOutInOrder)
{
    // A try every 2 s leaves room to bring the broker and a new subscriber
    // back between two of them.
    ASSERT_TRUE(startAgent("[agent]\nqueue_limit=5\n[broker]\nreconnect_min_s=2\nreconnect_max_s=2"));
    GatewayPeer gw(agent->url());
    ASSERT_TRUE(status(gw, false));
    ASSERT_TRUE(status(gw, true));
    broker.stop();
    EXPECT_TRUE(status(gw, false));

    // Eight uploads for five places: the three oldest real-time ones go.
    const char *uploads[][2] = {{"/DevSend/RTD", "r0"},          {"/DevSend/Alarm", "a0"}, {"/DevSend/RTD", "r1"},
                                {"/DevSend/RTDCompress", "z0"},  {"/DevSend/Alarm", "a1"}, {"/DevSend/RTD", "r2"},
                                {"/DevSend/AlarmRecover", "a2"}, {"/DevSend/RTD", "r3"}};
    for (const auto &u : uploads)
        ASSERT_TRUE(gw.send(envelope(topic(u[0]), u[1], 0, false)));
    // The heartbeat is answered throughout.
    ASSERT_TRUE(gw.send(R"({"topic":"mqtt_status_req"})"));
    EXPECT_TRUE(status(gw, false));
    ASSERT_TRUE(agent->process().waitForOutput("connect failed", 5000)) << agent->output().toStdString();

    ASSERT_TRUE(broker.start());
    MqttProbe late(broker.port(), "#");
    ASSERT_TRUE(late.connected());
    EXPECT_TRUE(status(gw, true));
    QStringList published;
    eventually([&] {
        published.clear();
        for (const MqttMessage &m : late.all())
            published << m.topic.mid(agent->prefix().size()) + " " + m.payload;
        return published.size() >= 5;
    }, 3000);
    EXPECT_EQ(published, QStringList({"/DevSend/Alarm a0", "/DevSend/Alarm a1", "/DevSend/RTD r2",
                                      "/DevSend/AlarmRecover a2", "/DevSend/RTD r3"}))
        << agent->output().toStdString();
    EXPECT_TRUE(agent->process().waitForOutput("3 messages dropped while it was away (3 real-time, 0 others)", 3000));
    EXPECT_EQ(agent->count("dropping the oldest"), 1);
}

TEST(AgentOptions, BadCommandLinesAndSettingsAreReported)
{
    AgentRun probe(LUMBRA_AGENT_BINARY, 1);
    struct Case {
        QStringList args;
        int exitCode;
        const char *says;
    } cases[] = {
        {{"--bogus"}, 2, "unknown option --bogus"},
        {{"-c"}, 2, "-c needs a file"},
        {{"-c", "/nonexistent/agent.ini"}, 2, "cannot read config /nonexistent/agent.ini"},
        {{"--help"}, 0, "usage: lumbra-agent"},
    };
    for (const Case &c : cases) {
        ChildProcess run;
        ASSERT_TRUE(run.start(LUMBRA_AGENT_BINARY, c.args, QDir::tempPath()));
        ASSERT_TRUE(run.waitForExit(3000)) << c.says;
        EXPECT_EQ(run.exitCode(), c.exitCode) << c.says;
        EXPECT_TRUE(run.output().contains(c.says)) << run.output().toStdString();
    }

    // Bad values are named, their defaults used, and the agent runs on; it
    // leaves with 0 on SIGTERM.
    probe.addConfig("[broker]\nport=http\ntls_insecure=maybe\nkeepalive=2\n[supervisor]\nstable_s=-1\nnonsense line");
    ASSERT_TRUE(probe.start());
    for (const char *says : {"broker/port 'http' is not a number in 1..65535, using 1883",
                             "broker/tls_insecure 'maybe' is not true or false, using false",
                             "broker/keepalive '2' is not a number in 5..65535, using 60",
                             "supervisor/stable_s '-1' is not a number in 0..86400, using 30",
                             "nonsense line ignored"})
        EXPECT_TRUE(probe.process().waitForOutput(says, 3000)) << says << "\n" << probe.output().toStdString();
    probe.process().stop();
    EXPECT_EQ(probe.process().exitCode(), 0);
}

TEST(AgentSupervisor, ACrashingGatewayIsRestartedWithGrowingDelaysAndNoSpinning)
{
    struct Case {
        const char *script;
        const char *stableS;
        double firstDelay, lastDelay;  // seconds, as logged
        int minStarts, maxStarts;
    } cases[] = {
        // Crashes at once: 0.1, 0.2, 0.4, then 0.8 each time.
        {"exit 3", "30", 0.1, 0.8, 5, 10},
        // Each run outlives stable_s: the delay starts over every time.
        {"sleep 1.2; exit 3", "1", 0.1, 0.1, 3, 4},
    };
    for (const Case &c : cases) {
        AgentRun agent(LUMBRA_AGENT_BINARY, freeTcpPort());
        agent.addConfig(QString("[supervisor]\nrestart_min_ms=100\nrestart_max_ms=800\nstable_s=%1").arg(c.stableS));
        ASSERT_TRUE(agent.start({"/bin/sh", "-c", c.script}));
        watch(agent, 4500);
        const QList<double> delays = agent.restartDelays();
        const int starts = agent.gatewayPids().size();
        EXPECT_GE(starts, c.minStarts) << c.script << agent.output().toStdString();
        EXPECT_LE(starts, c.maxStarts) << c.script << agent.output().toStdString();
        ASSERT_GE(delays.size(), 2) << c.script;
        EXPECT_DOUBLE_EQ(delays.first(), c.firstDelay) << c.script;
        EXPECT_DOUBLE_EQ(delays.last(), c.lastDelay) << c.script;
        EXPECT_TRUE(std::is_sorted(delays.begin(), delays.end())) << c.script;
        EXPECT_TRUE(agent.output().contains("exited with status 3, restarting in")) << c.script;
        EXPECT_LT(agent.cpuSeconds(), 0.5) << c.script;
    }
}

TEST(AgentSupervisor, BrokerFailuresAreRetriedWithGrowingDelaysAndNoSpinning)
{
    MosquittoBroker broker("lumbra", "right");
    ASSERT_TRUE(broker.start());
    QTemporaryDir noCertificates;
    struct Case {
        int port;
        QString ini;
        const char *says;
    } cases[] = {
        {broker.port(), "[broker]\nusername=lumbra\npassword=wrong",
         "refused: not authorised (CONNACK 5), retrying in"},
        // TLS to a port nobody listens on: libmosquitto retries such a
        // handshake without end unless the agent gives up on it.
        {freeTcpPort(), "[broker]\ncapath=" + noCertificates.path(),
         "connect failed (the handshake did not complete), retrying in"},
    };
    std::vector<std::unique_ptr<AgentRun>> agents;
    for (const Case &c : cases) {
        agents.push_back(std::make_unique<AgentRun>(LUMBRA_AGENT_BINARY, c.port));
        agents.back()->addConfig(c.ini);
        ASSERT_TRUE(agents.back()->start());
    }
    // Tries at 0, 1, 3 and 7 s: three or four within 6.5 s, not dozens.
    watch(*agents[0], 6500);
    for (size_t i = 0; i < agents.size(); ++i) {
        AgentRun &agent = *agents[i];
        watch(agent, 10);
        const int failures = agent.count(cases[i].says);
        EXPECT_GE(failures, 2) << agent.output().toStdString();
        EXPECT_LE(failures, 5) << agent.output().toStdString();
        EXPECT_TRUE(agent.output().contains("retrying in 2 s")) << cases[i].says;
        EXPECT_FALSE(agent.output().contains(" connected")) << cases[i].says;
        EXPECT_LT(agent.cpuSeconds(), 0.5) << cases[i].says;
    }
    EXPECT_EQ(broker.refusals(), agents[0]->count(cases[0].says));
}

TEST(AgentSupervisor, AGatewayIgnoringSigtermIsKilledOnRestartAndOnStop)
{
    AgentRun agent(LUMBRA_AGENT_BINARY, freeTcpPort());
    agent.addConfig("[supervisor]\nstop_timeout_ms=300");
    // The ignored SIGTERM survives the exec, so sleep itself ignores it.
    // Asked to stop only once the trap is set: before it, SIGTERM would end it.
    ASSERT_TRUE(agent.start({"/bin/sh", "-c", "trap '' TERM; echo armed$((1)); exec sleep 30"}));
    ASSERT_TRUE(agent.process().waitForOutput("armed1", 5000));
    GatewayPeer gw(agent.url());
    ASSERT_TRUE(gw.send(R"({"topic":"restartLumbra"})"));
    ASSERT_TRUE(agent.process().waitForOutput("stopped (killed by signal 9), starting it again", 3000))
        << agent.output().toStdString();
    ASSERT_TRUE(agent.waitUntil([&] { return agent.gatewayPids().size() == 2; }, 1000));
    EXPECT_TRUE(agent.output().contains("did not stop within 0.3 s, sending SIGKILL"));
    const QList<qint64> pids = agent.gatewayPids();
    ASSERT_EQ(pids.size(), 2);
    EXPECT_NE(pids[0], pids[1]);

    ASSERT_TRUE(agent.waitUntil([&] { return agent.count("armed1") == 2; }, 5000));
    agent.process().stop();
    EXPECT_EQ(agent.process().exitCode(), 0) << agent.output().toStdString();
    EXPECT_EQ(agent.count("sending SIGKILL"), 2);
    for (qint64 pid : pids)
        EXPECT_FALSE(QFileInfo::exists(QString("/proc/%1").arg(pid))) << pid;
}
