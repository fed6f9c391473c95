// The demo as a user starts it, minus the terminal; Ctrl-C is a SIGTERM.
#include "SQLiteDB/SQLiteDB.h"
#include "fdend.h"
#include "mosquittobroker.h"
#include "platformrun.h"
#include "process.h"
#include "testsupport.h"

#include <QJsonArray>

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <memory>

using namespace lumbra::test;

namespace {

const QString kPlatform = "/LUMBRA-DEMO-0001_3.0.0/DevSend/";
const QString kGateway = "/LUMBRA-DEMO-0001_3.0.0/DevRecv/";
const QString kApi = "/api/gateways/LUMBRA-DEMO-0001";

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

QJsonArray apiList(int port, const QString &path)
{
    return httpGet(port, path).json().array();
}

// Row counts of the gateway's own databases, one connection per file.
class GatewayTables {
public:
    explicit GatewayTables(const QString &dir) : m_dir(dir) {}
    int rows(const QString &file, const char *table)
    {
        std::unique_ptr<SQLiteDB> &db = m_open[file];
        if (!db)
            db = std::make_unique<SQLiteDB>((m_dir + "/" + file).toLocal8Bit().constData());
        QStringList cells;
        db->select(std::string("select count(*) from ") + table, cells);
        return cells.value(0, "-1").toInt();
    }

private:
    QString m_dir;
    std::map<QString, std::unique_ptr<SQLiteDB>> m_open;
};

}  // namespace

TEST(Demo, FirstThirtySecondsCarryEveryKindOfTrafficAndCtrlCStopsAll)
{
    QTemporaryDir dir;
    const int mqttPort = freeTcpPort();
    const int httpPort = freeTcpPort();
    const QString work = dir.path() + "/demo/work";
    ChildProcess demo;
    demo.setEnv("LUMBRA_DEMO_DIR", dir.path() + "/demo");
    demo.setEnv("LUMBRA_DEMO_MQTT_PORT", QString::number(mqttPort));
    demo.setEnv("LUMBRA_DEMO_PLC_PORT", QString::number(freeTcpPort()));
    demo.setEnv("LUMBRA_DEMO_AGENT_URL", QString("tcp://127.0.0.1:%1").arg(freeTcpPort()));
    demo.setEnv("LUMBRA_DEMO_HTTP_PORT", QString::number(httpPort));
    demo.setEnv("LUMBRA_DEMO_QUIET", "1");
    ASSERT_TRUE(demo.start("/bin/bash", {LUMBRA_SOURCE_DIR "/scripts/demo", LUMBRA_BUILD_DIR}, dir.path()));
    ASSERT_TRUE(demo.waitForOutput("Ctrl-C stops everything", 20000)) << demo.output().toStdString();
    EXPECT_TRUE(demo.output().contains(QString("console: http://127.0.0.1:%1/").arg(httpPort)));

    MqttProbe probe(mqttPort, "#");
    ASSERT_TRUE(probe.connected());
    const QSet<QString> wanted = {kPlatform + "RTD",     kPlatform + "Sequential/HisData", kPlatform + "Alarm",
                                  kGateway + "HisData",  kGateway + "MsgAck",              "plant/line1/values",
                                  "plant/line1/alarms"};
    eventually([&] { return topicsOf(probe.all()).contains(wanted); }, 30000);
    const QList<MqttMessage> seen = probe.all();
    EXPECT_TRUE(topicsOf(seen).contains(wanted)) << QStringList(topicsOf(seen).values()).join(' ').toStdString();

    // The payloads are the real ones, not just the topics.
    EXPECT_EQ(firstPayload(seen, kPlatform + "RTD").value("sn_code").toString(), "LUMBRA-DEMO-0001");
    const int alarm = firstPayload(seen, kPlatform + "Alarm").value("alarm_index").toInt();
    EXPECT_TRUE(alarm >= 1 && alarm <= 3) << alarm;
    EXPECT_TRUE(firstPayload(seen, "plant/line1/values").contains("temperature"));
    // The gateway wrote the files the platform sent it.
    EXPECT_TRUE(QFileInfo::exists(work + "/iotRunTime/RealTimeConfiguration.json"));

    const QJsonArray gateways = apiList(httpPort, "/api/gateways");
    ASSERT_EQ(gateways.size(), 1) << httpGet(httpPort, "/api/gateways").body.toStdString();
    EXPECT_EQ(gateways[0].toObject().value("sn").toString(), "LUMBRA-DEMO-0001");
    EXPECT_TRUE(gateways[0].toObject().value("online").toBool());
    // History: the platform holds more samples than the gateway keeps, which
    // deletes what was acknowledged (group 1 samples the counter every 5 s).
    GatewayTables tables(work);
    int platformRows = 0, gatewayRows = -1;
    EXPECT_TRUE(eventually(
        [&] {
            platformRows = apiList(httpPort, kApi + "/history?code=2").size();
            gatewayRows = tables.rows("history_iot.db", "historydata");
            return platformRows >= 3 && gatewayRows >= 0 && gatewayRows < 2;
        },
        30000))
        << platformRows << " rows on the platform, " << gatewayRows << " on the gateway";
    // Alarms: every stored event acknowledged, and the gateway's table empties
    // between the simulator's flips.
    int unacked = -1, gatewayEvents = -1;
    EXPECT_TRUE(eventually(
        [&] {
            const QJsonArray alarms = apiList(httpPort, kApi + "/alarms");
            unacked = 0;
            for (const QJsonValue &a : alarms)
                unacked += a.toObject().value("acked").toBool() ? 0 : 1;
            gatewayEvents = tables.rows("alarm_iot.db", "alarmdata");
            return !alarms.isEmpty() && unacked == 0 && gatewayEvents == 0;
        },
        30000))
        << unacked << " events unacknowledged, " << gatewayEvents << " left on the gateway";

    const QString agentLog = QString::fromUtf8(readFile(dir.path() + "/demo/logs/agent.log"));
    const QRegularExpressionMatch started = QRegularExpression("gateway started, pid (\\d+)").match(agentLog);
    ASSERT_TRUE(started.hasMatch()) << agentLog.toStdString();
    ::kill(static_cast<pid_t>(demo.pid()), SIGTERM);
    ASSERT_TRUE(demo.waitForExit(20000));
    EXPECT_TRUE(demo.output().contains("demo: stopped")) << demo.output().toStdString();
    EXPECT_TRUE(processGone(started.captured(1).toLongLong()));
}
