// The real gateway under lumbra-agent, with a real mosquitto as the cloud, and
// killed outright in the middle of history batches.
#include "SQLiteDB/SQLiteDB.h"
#include "agentrun.h"
#include "gatewaybox.h"
#include "mosquittobroker.h"
#include "platformsim.h"
#include "testsupport.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

// Group 1 samples every second; a rising edge on coil 5 samples group 2.
const char kHistory[] = R"({"upload_func_state":true,"compressed":false,"data":[
  {"group_id":1,"group_name":"cycle","sample_interval":"0,0,1","sample_method":1,"sample_data":[
    {"data_code":1,"data_type":0,"data_readAddress":{"link":"PLC1","block":"4X","no":"0","sta":1,"length":1}}]},
  {"group_id":2,"group_name":"edge","sample_interval":"0,0,1","sample_method":2,"trigger_method":"2",
   "triggerAddress":{"link":"PLC1","block":"0X","no":"5","sta":1,"length":1},"sample_data":[
    {"data_code":2,"data_type":0,"data_readAddress":{"link":"PLC1","block":"4X","no":"1","sta":1,"length":1}}]}]})";

// Waits until text appears at least n times in what p wrote.
bool seen(ChildProcess &p, const QString &text, int n, int timeoutMs)
{
    return eventually([&] {
        p.waitForOutput("\x01", 20);  // never printed: only reads
        return p.output().count(text) >= n;
    }, timeoutMs);
}

class SupervisedGateway : public ::testing::Test {
protected:
    GatewayBox box{MODBUS_TCP_DRIVER};
    MosquittoBroker broker;
    std::unique_ptr<MqttProbe> cloud;
    std::unique_ptr<AgentRun> agent;

    void SetUp() override
    {
        ASSERT_TRUE(box.ready());
        ASSERT_TRUE(broker.start());
        cloud = std::make_unique<MqttProbe>(broker.port(), "#");
        ASSERT_TRUE(cloud->connected());
        agent = std::make_unique<AgentRun>(LUMBRA_AGENT_BINARY, broker.port());
    }
    bool startGateway()
    {
        return agent->start({gatewayBinary()}, box.workPath()) &&
               agent->process().waitForOutput("gateway started", 5000);
    }
    QString topic(const QString &shortTopic) const { return agent->prefix() + shortTopic; }
    // The device's messages on shortTopic so far (at least count, within timeoutMs).
    QList<QJsonObject> sent(const QString &shortTopic, int count, int timeoutMs)
    {
        QList<QJsonObject> out;
        for (const MqttMessage &m : cloud->take(topic(shortTopic), count, timeoutMs))
            out << QJsonDocument::fromJson(m.payload).object();
        return out;
    }
    std::string log() { return agent->output().toStdString(); }
};

}  // namespace

TEST_F(SupervisedGateway, ItsRestartRequestRestartsItWithTheUnacknowledgedHistoryKept)
{
    box.slave().setHolding(0, 42);
    box.writeConfig("HistoryConfiguration.json", kHistory);
    QJsonObject link = QJsonDocument::fromJson(box.readConfig("LinkConfiguration.json")).object();
    link.insert("last_updata_time", "2026-11-01 08:00:00");
    ASSERT_TRUE(startGateway());

    // A rising edge on coil 5 samples the edge group and starts a send pass,
    // which uploads every stored row of the cyclic group too.
    const auto groupOneTimes = [&](int from) {
        QSet<QString> times;
        const QList<QJsonObject> batches = sent("/DevSend/Sequential/HisData", 0, 0);
        for (int i = from; i < batches.size(); ++i)
            if (batches[i].value("group_id").toInt() == 1)
                for (const QJsonValue &row : batches[i].value("data").toArray())
                    times.insert(row["data_time"].toString());
        return times;
    };
    const auto kickUntil = [&](const std::function<bool()> &done) {
        return eventually([&] {
            box.slave().setCoil(5, false);
            QThread::msleep(300);
            box.slave().setCoil(5, true);
            return done();
        }, 20000);
    };

    // The platform: a newer link configuration, nothing newer for the rest;
    // the last answer waits until stored rows have been uploaded once.
    for (int kind = 0; kind < 6; ++kind) {
        ASSERT_FALSE(cloud->take(topic(PlatformSim::requestTopic(kind)), 1, 15000).isEmpty()) << kind << log();
        if (kind == 5) {
            ASSERT_TRUE(kickUntil([&] { return !groupOneTimes(0).isEmpty(); })) << log();
        }
        const QByteArray reply =
            kind == 0 ? QJsonDocument(link).toJson(QJsonDocument::Compact) : R"({"data":[],"last_updata_time":"1"})";
        ASSERT_TRUE(cloud->publish(topic(PlatformSim::replyTopic(kind)), reply));
    }
    ASSERT_TRUE(agent->process().waitForOutput("the gateway asks to be restarted", 10000)) << log();
    ASSERT_TRUE(agent->waitUntil([&] { return agent->gatewayPids().size() == 2; }, 10000)) << log();
    const QList<qint64> pids = agent->gatewayPids();
    EXPECT_NE(pids[0], pids[1]);
    EXPECT_TRUE(agent->output().contains(QString("gateway pid %1 stopped").arg(pids[0])));
    EXPECT_EQ(box.readConfig("LinkConfiguration.json"), QJsonDocument(link).toJson(QJsonDocument::Compact));

    // The new process announces itself through the same agent connection as
    // the old one uploaded, so every batch of the old one has arrived by then.
    ASSERT_EQ(sent("/DevSend/DevConfigReq", 2, 15000).size(), 2) << log();
    const int uploadsBefore = sent("/DevSend/Sequential/HisData", 0, 0).size();
    const QSet<QString> before = groupOneTimes(0);
    EXPECT_TRUE(kickUntil([&] { return groupOneTimes(uploadsBefore).contains(before); })) << log();
}

TEST_F(SupervisedGateway, AGatewayOnItsOwnNoticesAnAgentRestartWithinSeconds)
{
    QTemporaryDir root;
    writeFile(root.path() + "/usr/brenta/iot_conf/sn.conf", AgentRun::kSerial);
    ChildProcess gateway;
    gateway.setEnv("LUMBRA_SYSROOT", root.path());
    gateway.setEnv("LUMBRA_AGENT_URL", agent->url());
    ASSERT_TRUE(agent->start());
    ASSERT_TRUE(gateway.start(gatewayBinary(), {}, box.workPath()));
    ASSERT_TRUE(seen(gateway, "get mqtt status:1", 1, 10000)) << gateway.output().toStdString();

    // Killed and back at once, before the gateway's next heartbeat could
    // fail; stopped and back only after the gateway found its sends going
    // nowhere.
    for (const bool killed : {true, false}) {
        const int downs = gateway.output().count("get mqtt status:0");
        const int ups = gateway.output().count("get mqtt status:1");
        const int losses = gateway.output().count("cloud link down");
        if (killed) {
            agent->process().kill();
        } else {
            agent->process().stop();
            EXPECT_TRUE(seen(gateway, "cloud link down", losses + 1, 6000)) << gateway.output().toStdString();
        }
        ASSERT_TRUE(agent->start());
        // Within seconds: down, then up again.
        EXPECT_TRUE(seen(gateway, "get mqtt status:1", ups + 1, 5000)) << killed << gateway.output().toStdString();
        EXPECT_GT(gateway.output().count("get mqtt status:0"), downs) << killed;
    }
    EXPECT_TRUE(gateway.running());
}

// Passwords reach the box in cloud messages (an FTP account, a forwarding
// broker's account) and in the agent's own file: with every debug line on,
// none of them may be written anywhere.
TEST_F(SupervisedGateway, NoPasswordReachesAnyLogEvenAtDebugLevel)
{
    writeFile(box.workPath() + "/zlog.conf", "[formats]\ns = \"%V %m%n\"\n[rules]\niot.DEBUG \"log/iot.log\"; s\n");
    agent->addConfig("[broker]\npassword hunter-s3cret\n");  // mistyped: no "="
    ASSERT_TRUE(startGateway());
    ASSERT_FALSE(sent("/DevSend/DevConfigReq", 1, 15000).isEmpty()) << log();

    const QByteArray software = R"({"ip":"127.0.0.1","port":"1","username":"box","pwd":"ftp-s3cret",
        "devSoftwareType":"iot","devOperationType":"DOWNLOAD","softwareVersionResponse":{"fileList":[
        {"fileName":"a.zip","filePath":"a.zip","fileCheckCode":"0"}]}})";
    const QByteArray server = R"({"operation_type":"add","data":[{"server_config_id":7,"host":"127.0.0.1",
        "port":1,"client_id":"c7","use_authentication":true,"user_name":"u","pass_word":"broker-s3cret"}]})";
    ASSERT_TRUE(cloud->publish(topic("/DevRecv/SoftwareOperation"), software));
    ASSERT_TRUE(cloud->publish(topic("/DevRecv/OnlineMqttServerSet"), server));
    EXPECT_FALSE(sent("/DevSend/OnlineMqttServerSetAck", 1, 8000).isEmpty()) << log();
    const auto failed = [&] {
        for (const QJsonObject &ack : sent("/DevSend/SoftwareOperationAck", 1, 100))
            if (ack.value("state").toString() == "DOWNLOAD_FAIL")
                return true;
        return false;
    };
    EXPECT_TRUE(eventually(failed, 8000)) << log();

    const QByteArray gatewayLog = readFile(box.workPath() + "/log/iot.log");
    agent->process().waitForOutput("\x01", 300);  // only reads
    const QByteArray agentLog = agent->output().toUtf8();
    ASSERT_TRUE(gatewayLog.contains("SoftwareOperation") && agentLog.contains("OnlineMqttServerSet"));
    for (const QByteArray &text : {gatewayLog, agentLog})
        EXPECT_FALSE(text.contains("s3cret")) << text.toStdString();
    EXPECT_EQ(QFile(box.workPath() + "/log/iot.log").permissions() & (QFileDevice::ReadOther | QFileDevice::ReadGroup), 0);
}

namespace {

// A row as "<group> <time> <text>": the text is the number of the process
// that sampled it, so rows of two processes in one second differ.
using Rows = QSet<QString>;

QString rowKey(const QString &group, const QString &time, const QString &text)
{
    return group + " " + time + " " + text;
}

Rows stored(const QString &dbFile)
{
    SQLiteDB db(dbFile.toLocal8Bit().constData());
    QStringList cells;
    db.select("select sampleID,datetime,data from historydata", cells);
    Rows out;
    for (int i = 0; i + 2 < cells.size(); i += 3)
        out.insert(rowKey(cells[i], cells[i + 1], cells[i + 2]));
    return out;
}

Rows batchRows(const AgentUpload &up)
{
    Rows out;
    const QString group = QString::number(up.msg.value("group_id").toInt());
    for (const QJsonValue &row : up.msg.value("data").toArray())
        out.insert(rowKey(group, row["data_time"].toString(), row["data_text"].toString()));
    return out;
}

// Group 1's next batch; the edge group's rising edge asks for a pass
// whenever none is under way.
AgentUpload groupOneBatch(GatewayBox &box)
{
    for (int attempt = 0; attempt < 8; ++attempt) {
        const AgentUpload up = box.agent().receiveTopic("/DevSend/Sequential/HisData", 700);
        if (up.ok() && up.msg.value("group_id").toInt() == 1)
            return up;
        box.slave().setCoil(5, false);
        QThread::msleep(150);
        box.slave().setCoil(5, true);
    }
    return AgentUpload();
}

void acknowledgeGroupOne(GatewayBox &box)
{
    ASSERT_TRUE(box.agent().send(R"({"topic":"/DevRecv/HisData","msg":"{\"status\":\"yes\",\"group_id\":1}"})"));
}

std::string listed(const Rows &rows)
{
    QStringList keys(rows.begin(), rows.end());
    keys.sort();
    return keys.join(" | ").toStdString();
}

}  // namespace

TEST(HistoryRestart, KilledInTheMiddleOfBatchesTwentyTimesNoRowIsLostNoneDeletedUnsent)
{
    GatewayBox box(MODBUS_TCP_DRIVER);
    ASSERT_TRUE(box.ready());
    box.writeConfig("HistoryConfiguration.json", kHistory);
    const QString dbFile = box.workPath() + "/history_iot.db";
    {
        // A backlog, as after an outage: every batch is a full one, whose
        // delete takes a while to be killed in.
        SQLiteDB db(dbFile.toLocal8Bit().constData());
        ASSERT_TRUE(db.createTableSQL("historydata"));
        ASSERT_TRUE(db.executeSQL("WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < 4500) "
                                  "INSERT INTO historydata SELECT 1, 'old', x FROM n"));
    }
    Rows seen = stored(dbFile);  // every row known to have been stored
    Rows acked;  // every row of a batch the platform acknowledged
    int sentAgain = 0;
    for (int run = 0; run < 20; ++run) {
        box.slave().setHolding(0, static_cast<uint16_t>(run));
        ASSERT_TRUE(box.start());
        // The answer to the batch the last process was killed with comes
        // to this one, which has sent nothing yet: it must take nothing.
        if (run % 3 == 1)
            acknowledgeGroupOne(box);
        ASSERT_TRUE(box.answerStatusRequest()) << run << box.gateway().output().toStdString();
        const AgentUpload up = groupOneBatch(box);
        ASSERT_TRUE(up.ok()) << run << box.gateway().output().toStdString();
        const Rows sent = batchRows(up);
        sentAgain += sent.intersects(seen) ? 1 : 0;
        seen += sent;
        // Killed before the acknowledgement, a few milliseconds after it
        // (while the gateway deletes, or before it got to it), or once it
        // has acted on it.
        if (run % 3 != 0) {
            acknowledgeGroupOne(box);
            acked += sent;
            if (run % 3 == 1) {
                QThread::msleep(static_cast<unsigned long>(run / 3 * 2 % 8));
            } else {
                EXPECT_TRUE(box.gateway().waitForOutput("recv del data num", 3000)) << run;
            }
        }
        box.gateway().kill();
        while (!box.agent().receive(50).isEmpty()) {
        }

        const Rows now = stored(dbFile);
        const Rows gone = seen - now;
        EXPECT_TRUE((gone - acked).isEmpty()) << "run " << run << ", gone unacknowledged: " << listed(gone - acked);
        if (run % 3 == 2) {
            EXPECT_TRUE((now & sent).isEmpty()) << "run " << run << ", acknowledged but kept: " << listed(now & sent);
        }
        seen += now;
    }
    // Unacknowledged rows went out again after the restarts.
    EXPECT_GE(sentAgain, 6);
}
