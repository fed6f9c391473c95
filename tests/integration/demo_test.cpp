// The demo as a user starts it, minus the terminal: within its first 30 s the
// broker carries real-time uploads, history batches, alarms and the forwarded
// topics, and a SIGTERM (what Ctrl-C becomes) leaves no process behind.
#include "fdend.h"
#include "mosquittobroker.h"
#include "process.h"
#include "testsupport.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>

using namespace lumbra::test;

namespace {

const QString kPlatform = "/LUMBRA-DEMO-0001_3.0.0/DevSend/";

QSet<QString> topicsOf(const QList<MqttMessage> &messages)
{
    QSet<QString> topics;
    for (const MqttMessage &m : messages)
        topics.insert(m.topic);
    return topics;
}

QJsonObject firstPayload(const QList<MqttMessage> &messages, const QString &topic)
{
    for (const MqttMessage &m : messages) {
        if (m.topic == topic)
            return QJsonDocument::fromJson(m.payload).object();
    }
    return {};
}

bool processGone(qint64 pid)
{
    return !QDir(QString("/proc/%1").arg(pid)).exists();
}

}  // namespace

TEST(Demo, FirstThirtySecondsCarryEveryKindOfTrafficAndCtrlCStopsAll)
{
    QTemporaryDir dir;
    const int mqttPort = freeTcpPort();
    ChildProcess demo;
    demo.setEnv("LUMBRA_DEMO_DIR", dir.path() + "/demo");
    demo.setEnv("LUMBRA_DEMO_MQTT_PORT", QString::number(mqttPort));
    demo.setEnv("LUMBRA_DEMO_PLC_PORT", QString::number(freeTcpPort()));
    demo.setEnv("LUMBRA_DEMO_AGENT_URL", QString("tcp://127.0.0.1:%1").arg(freeTcpPort()));
    demo.setEnv("LUMBRA_DEMO_QUIET", "1");
    ASSERT_TRUE(demo.start("/bin/bash", {LUMBRA_SOURCE_DIR "/scripts/demo", LUMBRA_BUILD_DIR}, dir.path()));
    ASSERT_TRUE(demo.waitForOutput("Ctrl-C stops everything", 20000)) << demo.output().toStdString();

    MqttProbe probe(mqttPort, "#");
    ASSERT_TRUE(probe.connected());
    const QSet<QString> wanted = {kPlatform + "RTD", kPlatform + "Sequential/HisData", kPlatform + "Alarm",
                                  "plant/line1/values", "plant/line1/alarms"};
    eventually([&] { return topicsOf(probe.all()).contains(wanted); }, 30000);
    const QList<MqttMessage> seen = probe.all();
    EXPECT_TRUE(topicsOf(seen).contains(wanted)) << QStringList(topicsOf(seen).values()).join(' ').toStdString();

    // The payloads are the real ones, not just the topics.
    EXPECT_EQ(firstPayload(seen, kPlatform + "RTD").value("sn_code").toString(), "LUMBRA-DEMO-0001");
    const int alarm = firstPayload(seen, kPlatform + "Alarm").value("alarm_index").toInt();
    EXPECT_TRUE(alarm >= 1 && alarm <= 3) << alarm;
    EXPECT_TRUE(firstPayload(seen, "plant/line1/values").contains("temperature"));

    const QString agentLog = QString::fromUtf8(readFile(dir.path() + "/demo/logs/agent.log"));
    const QRegularExpressionMatch started = QRegularExpression("gateway started, pid (\\d+)").match(agentLog);
    ASSERT_TRUE(started.hasMatch()) << agentLog.toStdString();
    ::kill(static_cast<pid_t>(demo.pid()), SIGTERM);
    ASSERT_TRUE(demo.waitForExit(20000));
    EXPECT_TRUE(demo.output().contains("demo: stopped")) << demo.output().toStdString();
    EXPECT_TRUE(processGone(started.captured(1).toLongLong()));
}
