// The whole open stack from an empty box: the simulated PLC, the gateway
// under lumbra-agent, a real mosquitto and lumbra-platform.
#include "SQLiteDB/SQLiteDB.h"
#include "agentrun.h"
#include "fdend.h"
#include "modbusmaster.h"
#include "mosquittobroker.h"
#include "platformrun.h"
#include "process.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QThread>

#include <gtest/gtest.h>

#include <map>
#include <memory>

using namespace lumbra::test;

namespace {

const char kSerial[] = "LUMBRA-AGENT-1";  // the box AgentRun makes

const char kRealTime[] = R"({"upload_func_state":true,"global_upload_time":1,"global_value_change_setting":false,
  "compressed":false,"data":[
  {"data_code":1,"data_name":"counter","data_type":0,"data_readAddress":{"link":"PLC1","block":"4X","no":"0","sta":1,"length":1}},
  {"data_code":9,"data_name":"set-point","data_type":0,"data_writeable":1,
   "data_readAddress":{"link":"PLC1","block":"4X","no":"30","sta":1,"length":1}}]})";
// A sample on every rising edge of the alarm bit: each is sent at once.
const char kHistory[] = R"({"upload_func_state":true,"compressed":true,"data":[{"group_id":1,"group_name":"edge",
  "sample_interval":"0,0,1","sample_method":2,"trigger_method":"2",
  "triggerAddress":{"link":"PLC1","block":"0X","no":"0","sta":1,"length":1},
  "sample_data":[{"data_code":1,"data_type":0,"data_readAddress":{"link":"PLC1","block":"4X","no":"0","sta":1,"length":1}}]}]})";
const char kAlarms[] = R"({"upload_func_state":true,"compressed":true,"data":[{"index":1,"alarm_level":2,
  "alarm_name":"bit","condition":0,"data_type":-1,"data_readAddress":{"link":"PLC1","block":"0X","no":"0","sta":1,"length":1}}]})";

class PlatformE2E : public ::testing::Test {
protected:
    QTemporaryDir box;
    MosquittoBroker broker;
    ChildProcess sim;
    int simPort = freeTcpPort();
    std::unique_ptr<AgentRun> agent;
    std::unique_ptr<PlatformRun> platform;

    void SetUp() override
    {
        ASSERT_TRUE(sim.start(LUMBRA_PLCSIM_BINARY,
                              {"--tcp", QString::number(simPort), "--registers", "200", "--alarm-period", "2"},
                              box.path()));
        ASSERT_TRUE(sim.waitForOutput("plcsim: Modbus TCP on", 5000));
        ASSERT_TRUE(broker.start());
        platform = std::make_unique<PlatformRun>(LUMBRA_PLATFORM_BINARY, broker.port());
        const QString link = QString(R"({"data":[{"link_name":"PLC1","link_type":"Ethernet/TCP","link_driver":"modbus_tcp",
            "hmi_ip":"127.0.0.1","hmi_port":"%1","plc_id":"1","comm_time":50,"timeout1":500,"retry_times":1}]})")
                                 .arg(simPort);
        platform->writeConfig(kSerial, "LinkConfiguration.json", link.toUtf8());
        platform->writeConfig(kSerial, "RealTimeConfiguration.json", kRealTime);
        platform->writeConfig(kSerial, "HistoryConfiguration.json", kHistory);
        platform->writeConfig(kSerial, "AlarmConfiguration.json", kAlarms);
        ASSERT_TRUE(platform->start()) << platform->output().toStdString();

        // The empty box: a driver, logging to stdout, no configuration.
        writeFile(box.path() + "/zlog.conf", "[formats]\ns = \"%V %m%n\"\n[rules]\niot.INFO >stdout; s\n");
        writeFile(box.path() + "/iotRunTime/driver/libmodbus_tcp.so", readFile(MODBUS_TCP_DRIVER));
        agent = std::make_unique<AgentRun>(LUMBRA_AGENT_BINARY, broker.port());
        ASSERT_TRUE(agent->start({gatewayBinary()}, box.path()));
    }

    std::string log()
    {
        agent->waitUntil([] { return false; }, 100);
        return ("--- agent and gateway\n" + agent->output() + "\n--- platform\n" + platform->output()).toStdString();
    }

    QJsonArray getArray(const QString &path) { return platform->get(path).json().array(); }

    std::map<QString, std::unique_ptr<SQLiteDB>> dbs;  // one connection per file
    int rows(const char *file, const char *table)
    {
        std::unique_ptr<SQLiteDB> &db = dbs[file];
        if (!db)
            db = std::make_unique<SQLiteDB>((box.path() + "/" + file).toLocal8Bit().constData());
        QStringList cells;
        db->select(QString("select count(*) from %1").arg(table).toStdString(), cells);
        return cells.value(0, "-1").toInt();
    }

    // The alarm events the gateway logged, as "ON"/"OFF", in order.
    QStringList loggedEvents()
    {
        agent->waitUntil([] { return false; }, 20);
        QStringList out;
        QRegularExpression re("alarm_id:1, type:\\d, value:(ON|OFF)");
        auto it = re.globalMatch(agent->output());
        while (it.hasNext())
            out << it.next().captured(1);
        return out;
    }

    QStringList storedEvents()
    {
        QStringList out;
        const QJsonArray a = getArray(QString("/api/gateways/%1/alarms?limit=10000").arg(kSerial));
        for (int i = a.size() - 1; i >= 0; --i)
            out << a.at(i).toObject().value("note").toString();
        return out;
    }
};

TEST_F(PlatformE2E, AnEmptyBoxConfiguresItselfAndEverythingArrivesOnce)
{
    // Configuration: six requests answered from the folder, then a restart.
    ASSERT_TRUE(agent->waitUntil([&] { return agent->count("gateway started, pid") >= 2; }, 60000)) << log();
    const QByteArray stored = readFile(box.path() + "/iotRunTime/RealTimeConfiguration.json");
    EXPECT_TRUE(stored.contains("\"set-point\"") && stored.contains("last_updata_time")) << stored.constData();
    EXPECT_FALSE(QFile::exists(box.path() + "/iotRunTime/ScriptConfiguration.json"));

    // Values, in the API and on the event stream.
    const QString api = QString("/api/gateways/%1").arg(kSerial);
    ASSERT_TRUE(eventually([&] { return getArray(api + "/points").size() == 2; }, 30000)) << log();
    const QJsonObject counter = getArray(api + "/points").at(0).toObject();
    EXPECT_EQ(counter.value("name").toString(), "counter");
    EXPECT_EQ(counter.value("quality").toString(), "good");
    const QByteArray events = httpEvents(platform->httpPort(), "/api/events?sn=" + QString(kSerial), 3000);
    EXPECT_TRUE(events.contains("event: points\ndata: {\"sn\":\"LUMBRA-AGENT-1\"")) << events.constData();

    // A write from the API reaches the PLC and is reported back.
    ASSERT_EQ(httpPost(platform->httpPort(), api + "/write", R"({"code":9,"value":"1234"})").status, 202);
    const Master master = tcpMaster(simPort);
    ASSERT_TRUE(master);
    uint16_t reg = 0;
    EXPECT_TRUE(eventually([&] { return modbus_read_registers(master.get(), 30, 1, &reg) == 1 && reg == 1234; }, 10000))
        << reg;
    EXPECT_TRUE(eventually([&] {
        const QJsonObject e = getArray(api + "/edits").at(0).toObject();
        return e.value("kind") == "write" && e.value("acked").toBool();
    }, 10000)) << platform->get(api + "/edits").body.constData();

    // History and alarms flow; the platform dies in the middle of it.
    ASSERT_TRUE(eventually([&] { return storedEvents().size() >= 3; }, 30000)) << log();
    platform->kill();
    QThread::msleep(4000);  // the gateway sends on into nothing meanwhile
    ASSERT_TRUE(platform->start()) << platform->output().toStdString();
    const int loggedBefore = static_cast<int>(loggedEvents().size());
    ASSERT_TRUE(eventually([&] { return storedEvents().size() >= loggedBefore + 4; }, 60000)) << log();

    // Stored once each, in the gateway's order; what the platform has left the
    // gateway's tables (a sample or event may be on its way right now).
    const QStringList logged = loggedEvents(), got = storedEvents();
    EXPECT_EQ(got, logged.mid(0, got.size()));
    EXPECT_GE(got.size(), logged.size() - 2);
    EXPECT_TRUE(eventually([&] { return rows("alarm_iot.db", "alarmdata") <= 1; }, 10000));
    EXPECT_TRUE(eventually([&] { return rows("history_iot.db", "historydata") <= 1; }, 15000));
    const QJsonArray history = getArray(api + "/history?code=1");
    ASSERT_GE(history.size(), 2) << log();
    QSet<qint64> seconds;
    for (const QJsonValue &v : history)
        seconds.insert(static_cast<qint64>(v.toObject().value("time").toDouble()));
    EXPECT_EQ(seconds.size(), history.size()) << "a sample stored twice";
    EXPECT_TRUE(getArray(api + "/alarms").at(1).toObject().value("acked").toBool());
}

}  // namespace
