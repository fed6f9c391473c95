// The whole cloud path through an outage: the gateway on the simulated PLC,
// lumbra-agent, a real mosquitto and a platform that acknowledges what it gets.
#include "SQLiteDB/SQLiteDB.h"
#include "ackingcloud.h"
#include "agentrun.h"
#include "fdend.h"
#include "modbusmaster.h"
#include "mosquittobroker.h"
#include "process.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QSet>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>

using namespace lumbra::test;

namespace {

const int kAlarmCoil = 30;  // a coil the simulator leaves alone

const char kHistory[] = R"({"upload_func_state":true,"compressed":false,"data":[
  {"group_id":1,"group_name":"counter","sample_interval":"0,0,1","sample_method":1,"sample_data":[
    {"data_code":1,"data_type":0,"data_readAddress":{"link":"PLC1","block":"4X","no":"0","sta":1,"length":1}}]}]})";
const char kAlarms[] = R"({"upload_func_state":true,"data":[{"index":1,"alarm_level":1,"condition":0,"data_type":-1,
  "data_readAddress":{"link":"PLC1","block":"0X","no":"30","sta":1,"length":1}}]})";
const char kRealTime[] = R"({"upload_func_state":true,"global_upload_time":1,"data":[{"data_code":1,"data_type":0,
  "data_readAddress":{"link":"PLC1","block":"4X","no":"0","sta":1,"length":1}}]})";

class CloudOutage : public ::testing::Test {
protected:
    QTemporaryDir work, simDir;
    BoxRoot root;
    MosquittoBroker broker;
    std::unique_ptr<AgentRun> agent;
    std::unique_ptr<AckingCloud> cloud;
    ChildProcess sim, gateway;
    Master master;

    void SetUp() override
    {
        const int simPort = freeTcpPort();
        ASSERT_TRUE(sim.start(LUMBRA_PLCSIM_BINARY, {"--tcp", QString::number(simPort), "--registers", "200"},
                              simDir.path()));
        ASSERT_TRUE(sim.waitForOutput("plcsim: Modbus TCP on", 5000));
        master = tcpMaster(simPort);
        ASSERT_TRUE(master);

        ASSERT_TRUE(broker.start());
        agent = std::make_unique<AgentRun>(LUMBRA_AGENT_BINARY, broker.port());
        agent->addConfig("[broker]\nreconnect_max_s = 2\n");
        cloud = std::make_unique<AckingCloud>(broker.port(), agent->prefix(), 100);
        ASSERT_TRUE(cloud->connected());
        ASSERT_TRUE(agent->start());

        root.write("/usr/brenta/iot_conf/sn.conf", AgentRun::kSerial);
        writeFile(work.path() + "/zlog.conf", "[formats]\ns = \"%V %m%n\"\n[rules]\niot.INFO >stdout; s\n");
        writeFile(work.path() + "/iotRunTime/driver/libmodbus_tcp.so", readFile(MODBUS_TCP_DRIVER));
        writeFile(work.path() + "/iotRunTime/LinkConfiguration.json",
                  QString(R"({"data":[{"link_name":"PLC1","link_type":"Ethernet/TCP","link_driver":"modbus_tcp",
                      "hmi_ip":"127.0.0.1","hmi_port":"%1","plc_id":"1","comm_time":20,"timeout1":300,
                      "retry_times":1}]})")
                      .arg(simPort)
                      .toUtf8());
        writeFile(work.path() + "/iotRunTime/HistoryConfiguration.json", kHistory);
        writeFile(work.path() + "/iotRunTime/AlarmConfiguration.json", kAlarms);
        writeFile(work.path() + "/iotRunTime/RealTimeConfiguration.json", kRealTime);
        gateway.setEnv("LUMBRA_SYSROOT", root.path());
        gateway.setEnv("LUMBRA_AGENT_URL", agent->url());
        ASSERT_TRUE(gateway.start(gatewayBinary(), {}, work.path()));
        ASSERT_TRUE(gateway.waitForOutput("get mqtt status:1", 15000)) << log();
    }

    std::string log()
    {
        gateway.waitForOutput("\x01", 200);  // never printed: only reads what is there
        agent->process().waitForOutput("\x01", 200);
        return (QString("gateway %1\n").arg(gateway.running() ? "running" : "gone") + gateway.output() +
                "\n--- agent\n" + agent->output())
            .toStdString();
    }

    void setAlarm(bool on) { ASSERT_EQ(modbus_write_bit(master.get(), kAlarmCoil, on ? 1 : 0), 1); }

    // One connection per file for the whole test: the gateway made the files.
    std::map<std::string, std::unique_ptr<SQLiteDB>> dbs;
    QStringList column(const char *file, const char *sql)
    {
        std::unique_ptr<SQLiteDB> &db = dbs[file];
        if (!db)
            db = std::make_unique<SQLiteDB>((work.path() + "/" + file).toLocal8Bit().constData());
        QStringList cells;
        db->select(sql, cells);
        return cells;
    }
    int historyRows() { return column("history_iot.db", "select count(*) from historydata").value(0).toInt(); }
    int alarmRows() { return column("alarm_iot.db", "select count(*) from alarmdata").value(0).toInt(); }
    // Samples of one second stored more than once.
    int storedTwice()
    {
        return column("history_iot.db",
                      "select count(*) from (select datetime from historydata group by sampleID, datetime "
                      "having count(*) > 1)")
            .value(0)
            .toInt();
    }

    // Over seconds, while the cloud is away: an alarm edge every 3 s (six in
    // all for 20 s), and history growing every second, never twice a second.
    void outage(int seconds)
    {
        QElapsedTimer t;
        t.start();
        const int first = historyRows();
        QList<int> seen{first};
        int edges = 0;
        while (t.elapsed() < seconds * 1000) {
            QThread::msleep(1000);
            seen << historyRows();
            // A row a second: over any two seconds at least one more.
            if (seen.size() >= 3) {
                EXPECT_GT(seen.last(), seen.at(seen.size() - 3)) << "history stalled after " << t.elapsed() << " ms";
            }
            if (edges < 6 && t.elapsed() >= (edges + 1) * 3000)
                setAlarm(++edges % 2 == 1);
        }
        EXPECT_GE(seen.last() - first, seconds - 2);
        EXPECT_EQ(edges, 6);
        EXPECT_EQ(storedTwice(), 0);
    }

    // The newest sample stored so far (in the box's seconds).
    qint64 newestSample()
    {
        return column("history_iot.db", "select max(datetime) from historydata").value(0).toLongLong();
    }
    // The seconds of the samples the platform has.
    QSet<qint64> delivered()
    {
        QSet<qint64> seconds;
        for (const QString &row : cloud->historyRows())
            seconds.insert(row.section('@', 1).toLongLong());
        return seconds;
    }

    // Every sample up to the cloud's return (a cyclic group waits for 300
    // rows before it sends again, so later ones may still wait) and every
    // alarm event has been delivered and acknowledged: one sample for every
    // second of the run, and the six alarm edges, in order.
    void everythingArrived(qint64 from, qint64 upTo)
    {
        ASSERT_LT(from, upTo);
        const auto complete = [&] {
            const QSet<qint64> got = delivered();
            if (alarmRows() != 0)
                return false;
            for (qint64 s = from; s <= upTo; ++s)
                if (!got.contains(s))
                    return false;
            return true;
        };
        ASSERT_TRUE(eventually(complete, 60000))
            << delivered().size() << " samples delivered, " << alarmRows() << " alarm rows left\n"
            << log();
        EXPECT_EQ(storedTwice(), 0);

        // Resends of an event whose acknowledgement was lost count once.
        QStringList edges;
        QSet<QString> seen;
        for (const QJsonObject &a : cloud->alarms()) {
            const QString edge = a.value("alarm_time").toString() + " " + a.value("alarm_note").toString();
            if (!seen.contains(edge)) {
                seen.insert(edge);
                edges << a.value("alarm_note").toString();
            }
        }
        EXPECT_EQ(edges, (QStringList{"ON", "OFF", "ON", "OFF", "ON", "OFF"})) << log();
    }
};

}  // namespace

TEST_F(CloudOutage, AgentKilledFor20sLosesNothing)
{
    ASSERT_TRUE(eventually([&] { return cloud->realTimeCount() > 0; }, 10000)) << log();
    ASSERT_TRUE(eventually([&] { return newestSample() > 0; }));
    const qint64 from = newestSample();
    agent->process().kill();
    ASSERT_TRUE(gateway.waitForOutput("cloud link down", 8000)) << log();
    ASSERT_NO_FATAL_FAILURE(outage(20));
    const qint64 upTo = newestSample();
    ASSERT_TRUE(agent->start());
    ASSERT_TRUE(agent->waitUntil([&] { return agent->count("gateway socket bound") == 2; }, 5000)) << log();
    ASSERT_NO_FATAL_FAILURE(everythingArrived(from, upTo));
}

TEST_F(CloudOutage, BrokerStoppedFor60sLosesNothing)
{
    ASSERT_TRUE(eventually([&] { return cloud->realTimeCount() > 0; }, 10000)) << log();
    ASSERT_TRUE(eventually([&] { return newestSample() > 0; }));
    const qint64 from = newestSample();
    broker.stop();
    ASSERT_TRUE(gateway.waitForOutput("get mqtt status:0", 8000)) << log();
    ASSERT_NO_FATAL_FAILURE(outage(60));
    const qint64 upTo = newestSample();
    ASSERT_TRUE(broker.start());
    ASSERT_NO_FATAL_FAILURE(everythingArrived(from, upTo));
}
