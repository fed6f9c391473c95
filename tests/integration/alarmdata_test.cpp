// The alarm service against real values (a libmodbus slave behind the link
// manager, or local registers), its store, and an agent peer that plays the
// cloud's acknowledgements.
#include "AlarmData/AlarmData.h"
#include "IotToMqttComm/IotToMqttComm.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "SQLiteDB/SQLiteDB.h"
#include "agentpeer.h"
#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "modbusslave.h"
#include "tcplink.h"
#include "testsupport.h"

#include <QDateTime>
#include <QJsonDocument>

#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace lumbra::test;

namespace {

AlarmData *const ad = AlarmData::getInstance();
communication *const comm = communication::getInstance();

void writeAlarms(const WorkDir &work, const QStringList &items)
{
    work.write("iotRunTime/AlarmConfiguration.json",
               QString(R"({"upload_func_state":true,"data":[%1]})").arg(items.join(',')).toUtf8());
}

QString alarmJson(int index, const QString &fields, const QString &block, int no, int level = 1)
{
    return QString(R"({"index":%1,"alarm_level":%2,%3,"data_readAddress":{"link":"PLC1","block":"%4","no":"%5",)"
                   R"("sta":1,"length":1}})")
        .arg(index)
        .arg(level)
        .arg(fields, block)
        .arg(no);
}

// "<type> <value>" of the events stored after rowid *seen, by alarm index.
QMap<int, QString> newEvents(SQLiteDB &db, int *seen)
{
    QStringList c;
    db.select(QString("select rowid,alarm_id,type,value from alarmdata where rowid>%1").arg(*seen).toStdString(), c);
    QMap<int, QString> out;
    for (int i = 0; i + 3 < c.size(); i += 4) {
        *seen = c[i].toInt();
        out[c[i + 1].toInt()] += c[i + 2] + " " + c[i + 3];
    }
    return out;
}

void setLocalBit(int addr, bool on)
{
    uchar v = on;
    comm->setCommValue("", "LB", addr, 0, 1, &v);
}

enum Reg { COIL, WORD, DWORD };

const struct ConditionCase {
    const char *fields;
    Reg reg;
    std::vector<uint32_t> values;      // the device value of each step; the last one holds
    std::vector<const char *> events;  // what each step stores, "" for nothing
} kConditions[] = {
    {R"("condition":3,"data_type":-1)", COIL, {0, 1, 0, 1}, {"", "", "1 OFF", "2 ON"}},
    {R"("condition":2,"data_type":-1)", COIL, {1, 0, 0, 1}, {"1 ON", "2 OFF", "", "1 ON"}},
    {R"("condition":0,"data_type":-1)", COIL, {0, 1, 1, 0}, {"", "1 ON", "", "2 OFF"}},
    {R"("condition":1,"data_type":-1)", COIL, {0, 1}, {"1 OFF", "2 ON"}},
    {R"("condition":11,"data_type":-1)", COIL, {1, 0}, {}},
    {R"("condition":9,"data_type":0,"limit_min":"10","limit_max":"20")", WORD, {10, 15, 20}, {"", "1 15", "2 20"}},
    {R"("condition":10,"data_type":0,"limit_min":"10","limit_max":"20")", WORD, {15, 21, 10, 9},
     {"", "1 21", "2 10", "1 9"}},
    // 1.234f and 1.235f
    {R"("condition":8,"data_type":6,"limit_value":"1.2345")", DWORD, {0x3F9DF3B6, 0x3F9E147B}, {"1 1.234", "2 1.235"}},
    {R"("condition":4,"data_type":2,"limit_value":"-5")", WORD, {uint16_t(-6), uint16_t(-1)}, {"1 -6", "2 -1"}},
    {R"("condition":5,"data_type":4,"limit_value":"1234")", WORD, {0x1200, 0x12AB, 0x1234}, {"", "1 null", "2 1234"}},
    {R"("condition":6,"data_type":1,"limit_value":"10")", DWORD, {0x10005, 0x1000B}, {"1 5", "2 11"}},
};

class AlarmConditions : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    const int port = freeTcpPort();
    std::unique_ptr<ModbusSlave> slave = ModbusSlave::tcp(port, 1);

    void SetUp() override
    {
        ASSERT_TRUE(slave);
        writeTcpLink(work.path(), MODBUS_TCP_DRIVER, port);
        comm->initLinks();
    }
    void TearDown() override { comm->stopLinks(); }

    // Sets the device value and tells whether the link has read it yet.
    bool reached(int i, uint32_t v)
    {
        const Reg reg = kConditions[i].reg;
        if (reg == COIL)
            slave->setCoil(2 * i, v != 0);
        else if (reg == DWORD)
            slave->setHolding(2 * i, uint16_t(v >> 16));  // high word first
        if (reg != COIL)
            slave->setHolding(2 * i + (reg == DWORD), uint16_t(v));
        const AddressInfo &a = ad->AlarmCfgList()[i].addr;
        uint32_t got = 0;
        return comm->getCommValue(a.link, a.reg, a.index, 1, a.length, reinterpret_cast<uchar *>(&got), 4) > 0 &&
               got == (reg == COIL ? v != 0 : reg == WORD ? v & 0xFFFF : v);
    }
};

}  // namespace

TEST_F(AlarmConditions, EachCodeFiresAndRecoversOnItsOwnTerms)
{
    const int n = int(std::size(kConditions));
    QStringList items{"5"};  // not an object: skipped, the rest still loads
    for (int i = 0; i < n; ++i)
        items << alarmJson(i + 1, kConditions[i].fields, kConditions[i].reg == COIL ? "0X" : "4X", 2 * i);
    writeAlarms(work, items);
    slave->setSilent(true);
    ASSERT_TRUE(ad->load());
    comm->enableExternalAddrInfo(true);
    ASSERT_EQ(ad->AlarmCfgList().size(), n);
    EXPECT_TRUE(log.contains("Alarm entry is not an object"));

    // Nothing read yet: the zeros the link hands out are no device state.
    SQLiteDB db("alarm_iot.db");
    int seen = 0;
    ad->evaluateAll();
    EXPECT_TRUE(newEvents(db, &seen).isEmpty());
    slave->setSilent(false);

    for (size_t step = 0; step < 4; ++step) {
        auto value = [&](int i) { return kConditions[i].values[std::min(step, kConditions[i].values.size() - 1)]; };
        ASSERT_TRUE(eventually([&] {
            bool all = true;
            for (int i = 0; i < n; ++i)
                all = reached(i, value(i)) && all;
            return all;
        })) << "step " << step;
        ad->evaluateAll();
        const QMap<int, QString> events = newEvents(db, &seen);
        for (int i = 0; i < n; ++i) {
            const auto &want = kConditions[i].events;
            EXPECT_EQ(events.value(i + 1).toStdString(), step < want.size() ? want[step] : "")
                << kConditions[i].fields << ", step " << step;
        }
    }
}

namespace {

class AlarmUpload : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    const QString url = QString("tcp://127.0.0.1:%1").arg(freeTcpPort());
    AgentPeer agent{url};
    std::unique_ptr<SQLiteDB> db;

    void SetUp() override
    {
        box.write("/usr/brenta/iot_conf/sn.conf", "ALARM-7\n");
        deviceInfo::getInstance()->init();
        MqttMsgEvent::MqttDealMapInit();
        setenv("LUMBRA_AGENT_URL", url.toLocal8Bit().constData(), 1);
        ASSERT_TRUE(agent.bound());
        IotToMqttComm::getInstance()->init();
        ASSERT_TRUE(agent.send(R"({"topic":"mqtt_status_Notification","status":true})"));
        ASSERT_TRUE(eventually([] { return IotToMqttComm::getInstance()->MqttStatus(); }));
        writeAlarms(work, {alarmJson(11, R"("condition":0,"data_type":-1)", "LB", 100, 1),
                           alarmJson(12, R"("condition":0,"data_type":-1)", "LB", 101, 5)});
        ad->init();
        ASSERT_TRUE(ad->isRunning());
        db = std::make_unique<SQLiteDB>("alarm_iot.db");
    }
    void TearDown() override
    {
        ad->stop();
        IotToMqttComm::getInstance()->stop(2000);
    }

    int rows() { return int(db->dataNum("alarmdata")); }

    bool sendAck(const QJsonValue &reqId)
    {
        const QJsonObject msg{{"reqTopic", "/DevSend/Alarm"}, {"reqId", reqId}};
        const QJsonObject cmd{{"topic", "/DevRecv/MsgAck"}, {"msg", QString::fromUtf8(QJsonDocument(msg).toJson())}};
        return agent.send(QJsonDocument(cmd).toJson());
    }
    // True when the acknowledgement took a row.
    bool ack(const AgentUpload &up)
    {
        const int before = rows();
        EXPECT_TRUE(sendAck(up.msg.value("reqId")));
        return eventually([&] { return rows() < before; }, 1000);
    }
};

QString levelFields(const QJsonObject &m)
{
    QString out;
    for (int n = 1; n <= 5; ++n)
        out += QString::number(m.value(QString("alarm_level%1").arg(n)).toInt(-1));
    return out;
}

}  // namespace

TEST_F(AlarmUpload, OneEventInFlightKeepsItsIdUntilAcknowledgedAndTheNextGoesAtOnce)
{
    setLocalBit(100, true);
    const AgentUpload first = agent.receiveTopic("/DevSend/Alarm", 3000);
    const QJsonObject &m = first.msg;
    EXPECT_EQ(m.value("alarm_index").toInt(), 11);
    EXPECT_EQ(m.value("alarm_note").toString(), "ON");
    EXPECT_EQ(m.value("alarm_type").toInt(), 1);
    EXPECT_EQ(m.value("alarm_total").toInt(), 1);
    EXPECT_EQ(m.value("sn_code").toString(), "ALARM-7");
    EXPECT_EQ(levelFields(m), "10000");
    EXPECT_NEAR(m.value("alarm_time").toString().toLongLong(), QDateTime::currentSecsSinceEpoch() - g_zonetime, 60);

    // A newer event waits behind the one in flight, which goes again after
    // 3 s (compressed now) under the same id.
    QElapsedTimer t;
    t.start();
    ad->setCompress(true);
    setLocalBit(101, true);
    const AgentUpload again = agent.receiveTopic("/DevSend/AlarmCompress", 4000);
    EXPECT_GE(t.elapsed(), 2500);
    EXPECT_EQ(again.msg.value("alarm_index").toInt(), 11);
    EXPECT_TRUE(again.envelope.value("zip").toBool());
    EXPECT_EQ(again.msg.value("reqId").toString(), m.value("reqId").toString());
    ASSERT_TRUE(eventually([&] { return rows() == 2; }));

    // Unknown ids delete nothing; the one in flight deletes its row and the
    // next event goes at once; a second acknowledgement of it deletes nothing.
    ASSERT_TRUE(sendAck("999"));
    EXPECT_TRUE(eventually([&] { return log.contains("recv msgAck req:999 not eq"); }));
    EXPECT_EQ(rows(), 2);
    t.restart();
    EXPECT_TRUE(ack(first));
    const AgentUpload level5 = agent.receiveTopic("/DevSend/AlarmCompress", 1000);
    EXPECT_LT(t.elapsed(), 1000);
    EXPECT_EQ(level5.msg.value("alarm_index").toInt(), 12);
    EXPECT_EQ(level5.msg.value("alarm_level").toInt(), 5);
    EXPECT_EQ(levelFields(level5.msg), "00000");
    EXPECT_FALSE(ack(first));
    EXPECT_TRUE(ack(level5));

    setLocalBit(100, false);
    const AgentUpload recovery = agent.receiveTopic("/DevSend/AlarmRecover", 3000);
    EXPECT_EQ(recovery.msg.value("alarm_note").toString(), "OFF");
    EXPECT_FALSE(recovery.msg.contains("alarm_type"));
    EXPECT_FALSE(recovery.envelope.value("zip").toBool());
    EXPECT_TRUE(ack(recovery));
}

// 40 edges in 10 s while the platform answers each message after a delay:
// the rows waiting never exceed what the round trip explains, and the table
// drains at the platform's pace once the storm is over.
class AlarmStorm : public AlarmUpload, public ::testing::WithParamInterface<int> {};

TEST_P(AlarmStorm, BacklogFollowsTheRoundTrip)
{
    const int delayMs = GetParam();
    std::atomic<bool> stop{false};
    std::atomic<int> acked{0};
    std::thread platform([&] {
        while (!stop) {
            const QJsonObject envelope = agent.receiveEnvelope(200);
            if (!envelope.value("topic").toString().contains("/DevSend/Alarm"))  // events and recoveries
                continue;
            const QJsonObject msg = QJsonDocument::fromJson(envelope.value("msg").toString().toUtf8()).object();
            QThread::msleep(static_cast<unsigned long>(delayMs));
            sendAck(msg.value("reqId"));
            ++acked;
        }
    });
    int most = 0;
    QElapsedTimer t;
    t.start();
    for (int edge = 0; edge < 40; ++edge) {
        setLocalBit(100, edge % 2 == 0);
        QThread::msleep(250);
        most = std::max(most, rows());
    }
    const qint64 stormMs = t.elapsed();
    // Each edge adds a row; each round trip (the delay plus a tick) takes one.
    const int explained = 40 - static_cast<int>(stormMs / (delayMs + 150)) + 6;
    EXPECT_LE(most, std::max(explained, 6)) << "delay " << delayMs;
    t.restart();
    EXPECT_TRUE(eventually([&] { return rows() == 0; }, 20000)) << rows() << " rows left";
    if (delayMs <= 200) {
        EXPECT_LT(t.elapsed(), 10000);
    }
    stop = true;
    platform.join();
    EXPECT_GE(acked, 40);
}

INSTANTIATE_TEST_SUITE_P(AckDelay, AlarmStorm, ::testing::Values(200, 400));

TEST(AlarmBadInput, UnusableConfigLeavesTheServiceStopped)
{
    const char *const cases[][2] = {{nullptr, "Alarm data config file no such"},
                                    {"{\"data\":[", "Alarm data config parse fail"}};
    for (const auto &c : cases) {
        LogCapture log;
        WorkDir work;
        if (c[0])
            work.write("iotRunTime/AlarmConfiguration.json", c[0]);
        ad->init();
        EXPECT_FALSE(ad->isRunning()) << c[1];
        EXPECT_TRUE(log.contains(c[1])) << c[1];
    }
}

TEST(AlarmBadInput, CorruptStoreLogsAndLosesNothing)
{
    LogCapture log;
    WorkDir work;
    const QByteArray junk = "never a database, but someone may want it back";
    work.write("alarm_iot.db", junk);
    writeAlarms(work, {alarmJson(1, R"("condition":0,"data_type":-1)", "LB", 200)});
    ASSERT_TRUE(ad->load());
    setLocalBit(200, true);
    ad->evaluateAll();
    ad->sendData();
    ad->MsgAck(1);  // nothing was ever sent
    EXPECT_TRUE(log.contains("SQL error"));
    EXPECT_FALSE(log.contains("recv del Alarm data"));
    EXPECT_EQ(readFile(work.file("alarm_iot.db")), junk);
}
