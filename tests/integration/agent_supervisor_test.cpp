// lumbra-agent supervising a gateway command and fighting for its broker.
#include "agentrun.h"
#include "fdend.h"
#include "gatewaypeer.h"
#include "mosquittobroker.h"
#include "testsupport.h"

#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

// Lets time pass while the agent works on its own.
void watch(AgentRun &agent, int ms)
{
    agent.waitUntil([] { return false; }, ms);
}

}  // namespace

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
