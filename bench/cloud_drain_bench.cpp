// End to end through lumbra-agent and a real mosquitto: the backlog an outage
// leaves (history rows and alarm events stored while the agent was away)
// drains once the agent returns, to a platform on the broker that answers
// every message the moment it comes.
//
//   bench_cloud_drain [history rows] [alarm events]   (defaults 10000 1000)
#include "SQLiteDB/SQLiteDB.h"
#include "ackingcloud.h"
#include "agentrun.h"
#include "deliverybench.h"
#include "mosquittobroker.h"
#include "process.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>
#include <cstdlib>

using namespace lumbra::test;

namespace {

// A group and an alarm that never add anything by themselves: only the
// backlog moves.
void writeConfig(const QString &work)
{
    // To a file, as on a box: an unread pipe would stall the gateway.
    writeFile(work + "/zlog.conf", "[formats]\ns = \"%d(%T).%ms %V %m%n\"\n[rules]\niot.INFO \"gateway.log\"; s\n");
    writeFile(work + "/iotRunTime/HistoryConfiguration.json",
              R"({"upload_func_state":true,"data":[{"group_id":1,"sample_method":0}]})");
    writeFile(work + "/iotRunTime/AlarmConfiguration.json",
              R"({"upload_func_state":true,"data":[{"index":1,"alarm_level":1,"condition":0,"data_type":-1,
                 "data_readAddress":{"link":"","block":"LB","no":"100","sta":0,"length":1}}]})");
}

bool fillStores(const QString &work, int rows, int events)
{
    const QByteArray history = (work + "/history_iot.db").toLocal8Bit();
    const QByteArray alarms = (work + "/alarm_iot.db").toLocal8Bit();
    SQLiteDB(history.constData()).executeSQL(
        "CREATE TABLE IF NOT EXISTS historydata (sampleID INT NOT NULL, data TEXT, datetime TEXT);");
    SQLiteDB(alarms.constData()).executeSQL(
        "CREATE TABLE IF NOT EXISTS alarmdata (alarm_id INT NOT NULL,level INT, type INT,value TEXT,time INT);");
    return lumbra::bench::fillTable(history.constData(), "historydata", rows,
                                    "1, '1234' || char(10) || '-12.34' || char(10) || '65000', 1763700000 + x") &&
           lumbra::bench::fillTable(alarms.constData(), "alarmdata", events,
                                    "1, 1, 1 + x % 2, CASE x % 2 WHEN 1 THEN 'OFF' ELSE 'ON' END, 1763700000 + x");
}

int distinctAlarms(const AckingCloud &cloud)
{
    QSet<QString> seen;
    for (const QJsonObject &a : cloud.alarms())
        seen.insert(a.value("alarm_time").toString());
    return seen.size();
}

}  // namespace

int main(int argc, char **argv)
{
    const int rows = argc > 1 ? std::atoi(argv[1]) : 10000;
    const int events = argc > 2 ? std::atoi(argv[2]) : 1000;
    QTemporaryDir work;
    BoxRoot root;
    writeConfig(work.path());
    if (!fillStores(work.path(), rows, events)) {
        std::fprintf(stderr, "cannot fill the stores\n");
        return 1;
    }
    MosquittoBroker broker;
    if (!broker.start()) {
        std::fprintf(stderr, "no broker\n");
        return 1;
    }
    AgentRun agent(LUMBRA_AGENT_BINARY, broker.port());
    agent.setVerbose(false);
    AckingCloud cloud(broker.port(), agent.prefix(), 0);
    root.write("/usr/brenta/iot_conf/sn.conf", AgentRun::kSerial);
    ChildProcess gateway;
    gateway.setEnv("LUMBRA_SYSROOT", root.path());
    gateway.setEnv("LUMBRA_AGENT_URL", agent.url());
    if (!cloud.connected() || !gateway.start(gatewayBinary(), {}, work.path())) {
        std::fprintf(stderr, "no platform or no gateway\n");
        return 1;
    }
    QThread::sleep(2);  // the gateway is up, and has nobody to send to

    QElapsedTimer clock;
    clock.start();
    agent.start();
    qint64 historyMs = -1, alarmMs = -1;
    while (clock.elapsed() < 60000 && (historyMs < 0 || alarmMs < 0)) {
        QThread::msleep(20);
        const QStringList received = cloud.historyRows();
        if (historyMs < 0 && QSet<QString>(received.begin(), received.end()).size() >= rows)
            historyMs = clock.elapsed();
        if (alarmMs < 0 && distinctAlarms(cloud) >= events)
            alarmMs = clock.elapsed();
    }
    if (historyMs < 0 || alarmMs < 0) {
        std::fprintf(stderr, "the backlog did not drain: %d history rows and %d alarm events arrived\n%s\n",
                     static_cast<int>(cloud.historyRows().size()), distinctAlarms(cloud),
                     readFile(work.path() + "/gateway.log").constData());
        return 1;
    }
    std::printf("cloud drain through lumbra-agent and mosquitto: %d history rows in %.2f s (%.0f rows/s), "
                "%d alarm events in %.2f s (%.0f events/s), from the agent's start\n",
                rows, historyMs / 1000.0, rows * 1000.0 / historyMs, events, alarmMs / 1000.0,
                events * 1000.0 / alarmMs);
    return 0;
}
