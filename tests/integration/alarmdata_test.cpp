// The alarm service against real values, its store, and a platform played at
// the outbox.
#include "AlarmData/AlarmData.h"
#include "Outbox/Outbox.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "SQLiteDB/SQLiteDB.h"
#include "cloudlinkfixture.h"
#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "outboxplatform.h"
#include "testsupport.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QThread>

#include <gtest/gtest.h>

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

class AlarmConditions : public DeviceFixture {
protected:
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

// The platform's acknowledgement of an upload, through the cloud handler.
void acknowledge(const Posted &p, const QJsonValue &reqId)
{
    const QJsonObject ack{{"reqTopic", p.topic}, {"reqId", reqId}};
    MqttMsgEvent::MsgAck(QString::fromUtf8(QJsonDocument(ack).toJson()));
}

void acknowledge(const Posted &p)
{
    acknowledge(p, p.msg.value("reqId"));
}

QString levelFields(const QJsonObject &m)
{
    QString out;
    for (int n = 1; n <= 5; ++n)
        out += QString::number(m.value(QString("alarm_level%1").arg(n)).toInt(-1));
    return out;
}

// "<index>:<type>" of each message acknowledged, in order, each once
// however often it was sent.
QStringList delivered(const QList<Posted> &posted)
{
    QStringList ids, out;
    for (const Posted &p : posted) {
        const QString id = p.msg.value("reqId").toString();
        if (ids.contains(id))
            continue;
        ids << id;
        out << QString("%1:%2").arg(p.msg.value("alarm_index").toInt()).arg(p.topic.endsWith("Recover") ? 2 : 1);
    }
    return out;
}

QStringList edges(int alarmIndex, int count)
{
    QStringList out;
    for (int i = 0; i < count; ++i)
        out << QString("%1:%2").arg(alarmIndex).arg(i % 2 + 1);
    return out;
}

// The alarm service with the cloud up and the platform played at the outbox.
class AlarmUpload : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    std::unique_ptr<SQLiteDB> db;

    void SetUp() override
    {
        box.write("/usr/brenta/iot_conf/sn.conf", "ALARM-7\n");
        deviceInfo::getInstance()->init();
        Outbox::getInstance()->setCloudState(true);
        writeAlarms(work, {alarmJson(11, R"("condition":0,"data_type":-1)", "LB", 100, 1),
                           alarmJson(12, R"("condition":0,"data_type":-1)", "LB", 101, 5)});
    }
    void TearDown() override { ad->stop(); }
    // After the platform: it empties the outbox as it starts.
    void start()
    {
        ad->init();
        ASSERT_TRUE(ad->isRunning());
        db = std::make_unique<SQLiteDB>("alarm_iot.db");
    }
    int rows() { return int(db->dataNum("alarmdata")); }
    // Sets the bit and waits for the event it raises.
    bool flip(int addr, bool on)
    {
        const int before = rows();
        setLocalBit(addr, on);
        return eventually([&] { return rows() != before; }, 1000);
    }
};

}  // namespace

TEST_F(AlarmUpload, TheEventInFlightKeepsItsIdUntilItIsAcknowledged)
{
    OutboxPlatform platform;  // the test answers by hand
    start();
    setLocalBit(100, true);
    const Posted first = platform.next("/DevSend/Alarm", 3000);
    const QJsonObject &m = first.msg;
    EXPECT_EQ(m.value("alarm_index").toInt(), 11);
    EXPECT_EQ(m.value("alarm_note").toString(), "ON");
    EXPECT_EQ(m.value("alarm_type").toInt(), 1);
    EXPECT_EQ(m.value("alarm_total").toInt(), 1);
    EXPECT_EQ(m.value("sn_code").toString(), "ALARM-7");
    EXPECT_EQ(levelFields(m), "10000");
    EXPECT_NEAR(m.value("alarm_time").toString().toLongLong(), QDateTime::currentSecsSinceEpoch() - g_zonetime, 60);

    // A newer event waits behind it; it goes again after 3 s, and at once
    // when the cloud comes back, each time under its own id.
    ASSERT_TRUE(flip(101, true));
    const Posted again = platform.next("/DevSend/Alarm", 4000);
    EXPECT_EQ(again.msg, m);
    EXPECT_GE(again.atMs - first.atMs, 2900);
    Outbox::getInstance()->agentLost();
    Outbox::getInstance()->setCloudState(true);
    const Posted back = platform.next("/DevSend/Alarm", 1000);
    EXPECT_EQ(back.msg, m);
    EXPECT_LT(back.atMs - again.atMs, 1000);

    // Acknowledgements naming anything else take nothing.
    const unsigned id = m.value("reqId").toString().toUInt();
    for (const QJsonValue &other : {QJsonValue(QString::number(id + 1)), QJsonValue("junk"), QJsonValue()})
        acknowledge(first, other);
    EXPECT_EQ(rows(), 2);

    // Its own takes its row, and the next event goes at once.
    ad->setCompress(true);
    acknowledge(first);
    EXPECT_EQ(rows(), 1);
    const Posted level5 = platform.next("/DevSend/AlarmCompress", 1000);
    EXPECT_LT(level5.atMs - back.atMs, 1000);
    EXPECT_TRUE(level5.zip);
    EXPECT_EQ(level5.msg.value("alarm_index").toInt(), 12);
    EXPECT_EQ(levelFields(level5.msg), "00000");
    acknowledge(first);  // a repeat: the row it named is gone already
    EXPECT_EQ(rows(), 1);
    EXPECT_EQ(log.count("not eq m_SendId"), 1);  // four in a row, one line

    acknowledge(level5);
    ASSERT_TRUE(flip(100, false));
    const Posted recovery = platform.next("/DevSend/AlarmRecover", 1000);
    EXPECT_EQ(recovery.msg.value("alarm_note").toString(), "OFF");
    EXPECT_FALSE(recovery.msg.contains("alarm_type"));
    EXPECT_FALSE(recovery.zip);
    acknowledge(recovery);
    EXPECT_EQ(rows(), 0);
}

class AlarmStorm : public AlarmUpload, public ::testing::WithParamInterface<int> {};

// An alarm that flaps 40 times in 10 s while the platform answers each
// message after a round trip: the rows waiting are those the round trip
// explains, no more, and they drain one round trip each.
TEST_P(AlarmStorm, RowsWaitOnlyForTheRoundTrip)
{
    const int roundTripMs = GetParam();
    OutboxPlatform platform(roundTripMs, [](const Posted &p) { acknowledge(p); });
    start();
    const int perRowMs = roundTripMs + 100;  // an edge is seen on the next tick
    int most = 0;
    QElapsedTimer storm;
    storm.start();
    for (int i = 0; i < 40; ++i) {
        setLocalBit(100, i % 2 == 0);
        // Each edge stored before the next, however late a tick comes on a
        // busy machine.
        ASSERT_TRUE(eventually([&] { return log.count("alarm_id:11, type:") == i + 1; }, 1000)) << i;
        QThread::msleep(static_cast<unsigned long>(qMax<qint64>(0, (i + 1) * 250 - storm.elapsed())));
        most = qMax(most, rows());
    }
    EXPECT_LE(most, 40 - 10000 / perRowMs + 2);
    const int left = rows();
    QElapsedTimer drain;
    drain.start();
    ASSERT_TRUE(eventually([&] { return rows() == 0; }, 20000)) << left << " rows left";
    EXPECT_LE(drain.elapsed(), left * perRowMs + 1000);
    EXPECT_EQ(delivered(platform.received()), edges(11, 40));
}

INSTANTIATE_TEST_SUITE_P(RoundTrip, AlarmStorm, ::testing::Values(200, 400));

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
    ad->MsgAck(0);  // nothing was ever sent
    EXPECT_TRUE(log.contains("SQL error"));
    EXPECT_FALSE(log.contains("recv del Alarm data"));
    EXPECT_EQ(readFile(work.file("alarm_iot.db")), junk);
}
