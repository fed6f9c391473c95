// The history service in the gateway's own process: a libmodbus slave as the
// device, a platform played at the outbox, and a clock that the test walks.
#include "HistoricalData/HistoricalData.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "Outbox/Outbox.h"
#include "SQLiteDB/SQLiteDB.h"
#include "cloudlinkfixture.h"
#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "outboxplatform.h"
#include "testsupport.h"

#include <QDir>
#include <QJsonArray>
#include <QThread>

#include <atomic>
#include <ctime>
#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

const char kSerial[] = "HIS-E2E-1";
std::atomic<qint64> g_now{1};
qint64 testClock()
{
    return g_now;
}

QString address(const char *block, int no)
{
    return QString(R"({"link":"PLC1","block":"%1","no":"%2","sta":1,"length":1})").arg(block).arg(no);
}

QString point(int no, int type = 0, const QString &extra = "", const char *block = "4X")
{
    return QString(R"({"data_type":%1,%2"data_readAddress":%3})").arg(type).arg(extra, address(block, no));
}

QString group(int id, int method, const QString &fields, const QStringList &points = {point(0)})
{
    return QString(R"({"group_id":%1,"sample_method":%2,%3,"sample_data":[%4]})")
        .arg(id)
        .arg(method)
        .arg(fields, points.join(','));
}

// A trigger group on a coil, level methods every 10 s.
QString trigger(int method, int coil)
{
    return QString(R"("sample_interval":"0,0,10","trigger_method":"%1","triggerAddress":%2)")
        .arg(method)
        .arg(address("0X", coil));
}

class History : public DeviceFixture {
protected:
    std::unique_ptr<SQLiteDB> db;
    HistoricalData *his = HistoricalData::getInstance();

    void SetUp() override
    {
        qputenv("TZ", "UTC");
        tzset();
        box.write("/usr/brenta/iot_conf/sn.conf", kSerial);
        deviceInfo::getInstance()->init();
        DeviceFixture::SetUp();
    }

    void TearDown() override
    {
        his->stop();
        DeviceFixture::TearDown();
    }

    void start(const QStringList &groups, const QString &settings = R"("upload_func_state":true)")
    {
        work.write("iotRunTime/HistoryConfiguration.json",
                   QString(R"({%1,"data":[%2]})").arg(settings, groups.join(',')).toUtf8());
        his->setClock(&testClock);
        his->init();
        comm->enableExternalAddrInfo(true);
        ASSERT_TRUE(his->isRunning());
        db = std::make_unique<SQLiteDB>("history_iot.db");
    }

    // The link has polled value at that address.
    bool deviceShows(const char *block, int no, int value)
    {
        const bool word = QByteArray(block) == "4X";
        const int index = comm->getIndexFromAddr("PLC1", block, QString::number(no), 1, word ? 1 : 0);
        return eventually([&] {
            quint16 v = 0;
            comm->getCommValue("PLC1", block, index, 1, 1, reinterpret_cast<uchar *>(&v), 2);
            return (word ? v : v & 0xFF) == value;
        });
    }

    QStringList column(const char *col, int groupId)
    {
        QStringList out;
        db->select(QString("select %1 from historydata where sampleID=%2").arg(col).arg(groupId).toStdString(), out);
        return out;
    }
    int rows(int groupId) { return column("data", groupId).size(); }
    bool rowsReach(int groupId, int n) { return eventually([&] { return rows(groupId) == n; }); }
    // A few ticks pass without the rows changing.
    bool rowsStay(int groupId, int n)
    {
        QThread::msleep(400);
        return rows(groupId) == n;
    }
};

}  // namespace

TEST_F(History, CyclicGroupSamplesOnceOnEachMultipleOfItsPeriodWhileTheSwitchIsOn)
{
    slave->setHolding(0, 65000);
    slave->setHolding(1, static_cast<uint16_t>(-1234));
    slave->setCoil(5, true);
    start({group(1, 1, R"("sample_interval":"0,1,30")",
                 {point(0), point(1, 2, R"("data_devimalDigits":2,)"), point(5, -1, "", "0X")}),
           group(2, 2, trigger(2, 5)), group(3, 1, R"("sample_interval":"0,0,0")")},
          R"("upload_func_state":false)");
    ASSERT_TRUE(deviceShows("4X", 1, static_cast<uint16_t>(-1234)) && deviceShows("0X", 5, 1));
    g_now = 90 * 1000;
    EXPECT_TRUE(rowsStay(1, 0) && rowsStay(2, 0));

    g_now = 90 * 1000 + 45;
    his->setUploadFunc(true);
    EXPECT_TRUE(rowsReach(2, 1));
    EXPECT_TRUE(rowsStay(1, 0));
    g_now = 90 * 1001;
    ASSERT_TRUE(rowsReach(1, 1));
    EXPECT_EQ(column("data", 1), QStringList{"65000\n-12.34\n1"});
    EXPECT_EQ(column("datetime", 1), QStringList{QString::number(90 * 1001 - g_zonetime)});
    EXPECT_TRUE(rowsStay(1, 1));
    g_now = 90 * 1002;
    EXPECT_TRUE(rowsReach(1, 2));
    EXPECT_EQ(rows(3), 0);  // no period, never cyclic
}

TEST_F(History, TriggerGroupsSampleOnLevelsAtTheirPeriodAndOnceAnEdge)
{
    slave->setCoil(0, true);
    start({group(11, 2, trigger(0, 0)), group(12, 2, trigger(1, 0)), group(13, 2, trigger(2, 1)),
           group(14, 2, trigger(3, 1))});
    g_now = 1001;
    ASSERT_TRUE(deviceShows("0X", 0, 1));
    g_now = 1010;
    EXPECT_TRUE(rowsReach(11, 1));
    EXPECT_TRUE(rowsStay(12, 0));
    slave->setCoil(0, false);
    ASSERT_TRUE(deviceShows("0X", 0, 0));
    g_now = 1020;
    EXPECT_TRUE(rowsReach(12, 1));
    EXPECT_TRUE(rowsStay(11, 1));

    slave->setCoil(1, true);
    EXPECT_TRUE(rowsReach(13, 1));
    EXPECT_TRUE(rowsStay(13, 1));  // the bit stays set
    EXPECT_EQ(rows(14), 0);
    slave->setCoil(1, false);
    EXPECT_TRUE(rowsReach(14, 1));
    slave->setCoil(1, true);
    EXPECT_TRUE(rowsReach(13, 2));
    EXPECT_EQ(rows(14), 1);
}

TEST_F(History, TimingGroupsSampleAtTheirClockTimesAndMinute)
{
    const qint64 day = 86400 * 19700;
    auto at = [day](int h, int m) { return day + h * 3600 + m * 60; };
    start({group(21, 3, R"("timing_data":"08:30,9:00")"), group(22, 3, R"("timing_data":"","timing_minute":45)")});
    g_now = at(8, 29);
    EXPECT_TRUE(rowsStay(21, 0));
    g_now = at(8, 30);
    EXPECT_TRUE(rowsReach(21, 1));
    g_now = at(8, 30) + 30;
    EXPECT_TRUE(rowsStay(21, 1));
    g_now = at(9, 0);
    EXPECT_TRUE(rowsReach(21, 2));
    EXPECT_EQ(rows(22), 0);
    g_now = at(9, 45);
    EXPECT_TRUE(rowsReach(22, 1));
}

void acknowledge(unsigned groupId, const char *status = "yes")
{
    MqttMsgEvent::recvHistoryDataAck(QString(R"({"status":"%1","group_id":%2})").arg(status).arg(groupId));
}

class HistoryUpload : public History, public ::testing::WithParamInterface<bool> {};

TEST_P(HistoryUpload, ABatchCarriesItsGroupsRowsWithTheirLabels)
{
    const bool zip = GetParam();
    slave->setHolding(0, 1234);
    slave->setHolding(10, 'i' << 8 | 't');
    slave->setHolding(11, '\'' << 8 | 's');  // and a zero word to end the text
    start({group(6, 1, R"("sample_interval":"0,0,50")",
                 {point(0), point(10, 7, R"("data_totalDigits":6,"data_devimalDigits":3,)")})},
          QString(R"("upload_func_state":true,"compressed":%1)").arg(zip ? "true" : "false"));
    ASSERT_TRUE(deviceShows("4X", 11, '\'' << 8 | 's'));
    g_now = 100;
    ASSERT_TRUE(rowsReach(6, 1));
    g_now = 150;
    ASSERT_TRUE(rowsReach(6, 2));

    // The cloud coming up starts a pass at once.
    OutboxPlatform platform;
    Outbox::getInstance()->setCloudState(true);
    const Posted batch = platform.next(zip ? "/Sequential/HisDataCompress" : "/Sequential/HisData", 3000);
    ASSERT_TRUE(batch.ok());
    EXPECT_EQ(batch.zip, zip);
    EXPECT_EQ(batch.msg.value("sn_code").toString(), kSerial);
    EXPECT_EQ(batch.msg.value("group_id").toInt(-1), 6);
    EXPECT_EQ(batch.msg.value("data_samples").toString(), "0_0,7_-1");
    const QJsonArray data = batch.msg.value("data").toArray();
    ASSERT_EQ(data.size(), 2);
    EXPECT_EQ(data[0].toObject().value("data_text").toString(), "1234\nit's");
    EXPECT_EQ(data[1].toObject().value("data_time").toString(), QString::number(150 - g_zonetime));
    // Each row names itself, so a platform can tell a resend from an equal sample.
    EXPECT_LT(data[0].toObject().value("row_id").toDouble(-1), data[1].toObject().value("row_id").toDouble(-1));
    EXPECT_GE(data[0].toObject().value("row_id").toDouble(-1), 1);

    // Whatever the platform says of the batch, it has it.
    acknowledge(6, "no");
    EXPECT_TRUE(rowsReach(6, 0));
    EXPECT_TRUE(log.contains("recv history data acv err:"));
}

INSTANTIATE_TEST_SUITE_P(Plain, HistoryUpload, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Compressed, HistoryUpload, ::testing::Values(true));

namespace {

// Rows already stored (as after an outage), no device: the group ids are
// the only thing that matters here.
class HistoryDelivery : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    HistoricalData *his = HistoricalData::getInstance();
    SQLiteDB db{"history_iot.db"};

    void SetUp() override
    {
        box.write("/usr/brenta/iot_conf/sn.conf", kSerial);
        deviceInfo::getInstance()->init();
        ASSERT_TRUE(db.createTableSQL("historydata"));
        Outbox::getInstance()->setCloudState(true);
    }
    void TearDown() override { his->stop(); }

    // count rows of the group, their times first, first + 1, ...
    void fill(unsigned groupId, int count, int first)
    {
        ASSERT_TRUE(db.executeSQL(QString("WITH RECURSIVE n(x) AS (SELECT %1 UNION ALL SELECT x + 1 FROM n "
                                          "WHERE x < %2) INSERT INTO historydata SELECT %3, 'row', x FROM n")
                                      .arg(first)
                                      .arg(first + count - 1)
                                      .arg(groupId)
                                      .toStdString()));
    }
    // groups: the "data" items of the configuration.
    void start(const QString &groups)
    {
        work.write("iotRunTime/HistoryConfiguration.json",
                   QString(R"({"upload_func_state":true,"data":[%1]})").arg(groups).toUtf8());
        his->setClock(&testClock);
        his->init();
        ASSERT_TRUE(his->isRunning());
    }
    int rows(const QString &where = "1")
    {
        QStringList cells;
        db.select(("select count(*) from historydata where " + where).toStdString(), cells);
        return cells.value(0, "-1").toInt();
    }
    int rows(unsigned groupId) { return rows(QString("sampleID=%1").arg(groupId)); }
};

// A group that never samples by itself.
QString idle(unsigned groupId)
{
    return QString(R"({"group_id":%1,"sample_method":0})").arg(groupId);
}

// The data_time texts of a batch, as "1,2,3".
std::string times(const Posted &batch)
{
    QStringList out;
    for (const QJsonValue &row : batch.msg.value("data").toArray())
        out << row.toObject().value("data_time").toString();
    return out.join(',').toStdString();
}

std::string numbers(int first, int last)
{
    QStringList out;
    for (int i = first; i <= last; ++i)
        out << QString::number(i);
    return out.join(',').toStdString();
}

}  // namespace

TEST_F(HistoryDelivery, AGroupNeverAcknowledgedHoldsBackNoOther)
{
    fill(1, 300, 1);
    fill(2, 700, 301);
    OutboxPlatform platform(20, [](const Posted &p) {
        if (p.msg.value("group_id").toInt() == 2)
            acknowledge(2);
    });
    start(idle(1) + "," + idle(2));
    ASSERT_TRUE(eventually([&] { return rows(2) == 0; }, 3000)) << rows(2) << " rows of group 2 left";
    EXPECT_EQ(rows(1), 300);

    std::string two;
    int ones = 0;
    for (const Posted &p : platform.received()) {
        if (p.msg.value("group_id").toInt() == 2)
            two += (two.empty() ? "" : ",") + times(p);
        else
            ++ones;
    }
    EXPECT_EQ(two, numbers(301, 1000));  // each row once, in order
    EXPECT_EQ(ones, 1);  // not again before its resend time

    // Acknowledgements with no batch behind them take nothing.
    for (unsigned id : {2u, 9u, 2u})
        acknowledge(id);
    EXPECT_EQ(rows(), 300);
    EXPECT_EQ(log.count("with no batch in flight"), 1);
}

TEST_F(HistoryDelivery, AnAcknowledgementAfterPruningTakesOnlyRowsItsBatchCarried)
{
    fill(2, 1900, 1);
    fill(1, 98099, 1901);
    OutboxPlatform platform;
    g_now = 1;
    start(idle(2) + R"(,{"group_id":1,"sample_method":1,"sample_interval":"0,0,1","sample_data":[)"
                    R"({"data_type":0,"data_readAddress":{"block":"LW","no":"0"}}]})");
    const Posted first = platform.next("HisData", 3000), second = platform.next("HisData", 3000);
    ASSERT_TRUE(first.ok() && second.ok());
    const Posted &one = first.msg.value("group_id").toInt() == 1 ? first : second;
    EXPECT_EQ(times(one), numbers(1901, 2200));
    ASSERT_EQ(rows(), 100000);

    // The next sample passes the cap: the 2,000 oldest rows go, a hundred
    // of group 1's batch among them.
    g_now = 2;
    ASSERT_TRUE(eventually([&] { return rows() == 98001; }));
    EXPECT_EQ(rows("rowid <= 2000"), 0);
    acknowledge(1);
    EXPECT_EQ(rows(), 98001 - 200);
    EXPECT_EQ(rows("sampleID=1 and rowid <= 2200"), 0);
    acknowledge(2);  // every row of its batch was pruned
    EXPECT_EQ(rows(), 98001 - 200);
}

TEST_F(HistoryDelivery, TheAcknowledgementsOfABatchSentTwiceTakeItsRowsOnly)
{
    fill(1, 400, 1);
    OutboxPlatform platform;
    start(idle(1));
    ASSERT_EQ(times(platform.next("HisData", 3000)), numbers(1, 300));
    Outbox::getInstance()->agentLost();
    Outbox::getInstance()->setCloudState(true);
    ASSERT_EQ(times(platform.next("HisData", 3000)), numbers(1, 300));

    // The platform answers both copies; the group's next batch waits for
    // the second answer, which must not be taken for its own.
    acknowledge(1);
    EXPECT_EQ(rows(), 100);
    EXPECT_FALSE(platform.next("HisData", 500).ok());
    acknowledge(1);
    EXPECT_EQ(rows(), 100);
    const Posted next = platform.next("HisData", 1000);
    EXPECT_EQ(times(next), numbers(301, 400));
    acknowledge(1);
    EXPECT_EQ(rows(), 0);
}

// Rows are remembered by rowid from the batch to its acknowledgement; the
// store's compaction must not renumber them under a batch in flight, or the
// acknowledgement takes another group's rows that were never sent.
TEST_F(HistoryDelivery, CompactingTheStoreUnderABatchInFlightLosesNoRow)
{
    fill(2, 100, 1);    // rowids 1-100, acknowledged at once: a gap
    fill(1, 600, 101);  // 101-700: two batches
    fill(3, 400, 701);  // 701-1100: never acknowledged
    std::atomic<int> batchesOfOne{0};
    OutboxPlatform platform(20, [&](const Posted &p) {
        const int group = p.msg.value("group_id").toInt();
        if (group == 2 || (group == 1 && ++batchesOfOne == 1))
            acknowledge(group);
    });
    start(idle(1) + "," + idle(2) + "," + idle(3));
    ASSERT_TRUE(eventually([&] { return batchesOfOne == 2 && rows(2) == 0; }, 3000));
    ASSERT_EQ(rows(1), 300);

    his->refreshStore();
    acknowledge(1);
    EXPECT_EQ(rows(1), 0);
    EXPECT_EQ(rows(3), 400);
}

namespace {

const char kConfig[] = "iotRunTime/HistoryConfiguration.json";

// Configuration and store, without a device.
class HistoryStore : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    HistoricalData *his = HistoricalData::getInstance();

    void TearDown() override { his->stop(); }
};

}  // namespace

TEST_F(HistoryStore, UnusableConfigurationLeavesTheServiceStopped)
{
    const struct {
        QByteArray text;  // null: no file; "/": a directory in its place
        const char *logged;
    } cases[] = {{QByteArray(), "Historical data config file no such"},
                 {"/", "Historical data config file open fail"},
                 {"{\"data\":[", "Historical data config parse fail"}};
    for (const auto &c : cases) {
        QFile::remove(work.file(kConfig));
        QDir().rmdir(work.file(kConfig));
        if (c.text == "/")
            QDir().mkpath(work.file(kConfig));
        else if (!c.text.isNull())
            work.write(kConfig, c.text);
        his->init();
        EXPECT_TRUE(log.contains(c.logged)) << c.logged;
        EXPECT_FALSE(his->isRunning()) << c.logged;
    }
}

TEST_F(HistoryStore, CorruptDatabaseIsLoggedAndTheServiceKeepsRunning)
{
    work.write("history_iot.db", QByteArray(8192, 'x'));
    // Group 1 samples local word 0 every second.
    work.write(kConfig, R"({"upload_func_state":true,"data":[{"group_id":1,"sample_method":1,"sample_interval":"0,0,1",)"
                        R"("sample_data":[{"data_type":0,"data_readAddress":{"block":"LW","no":"0"}}]}]})");
    g_now = 1;
    his->setClock(&testClock);
    his->init();
    ASSERT_TRUE(his->isRunning());
    g_now = 2;
    EXPECT_TRUE(eventually([&] { return log.count("SQL error") >= 3; }));  // table, count, insert
    EXPECT_TRUE(his->isRunning());
}
