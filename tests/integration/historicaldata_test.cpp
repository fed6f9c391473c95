// The history service in the gateway's own process: a libmodbus slave as the
// device, a nanomsg peer as the agent, and a clock that the test walks.
#include "HistoricalData/HistoricalData.h"
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

class History : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    std::unique_ptr<ModbusSlave> slave;
    std::unique_ptr<AgentPeer> agent;
    std::unique_ptr<SQLiteDB> db;
    HistoricalData *his = HistoricalData::getInstance();
    communication *comm = communication::getInstance();

    void SetUp() override
    {
        qputenv("TZ", "UTC");
        tzset();
        box.write("/usr/brenta/iot_conf/sn.conf", kSerial);
        deviceInfo::getInstance()->init();
        MqttMsgEvent::MqttDealMapInit();
        const int port = freeTcpPort();
        slave = ModbusSlave::tcp(port, 1);
        ASSERT_TRUE(slave);
        const QString url = QString("tcp://127.0.0.1:%1").arg(freeTcpPort());
        qputenv("LUMBRA_AGENT_URL", url.toUtf8());
        agent = std::make_unique<AgentPeer>(url);
        ASSERT_TRUE(agent->bound());
        IotToMqttComm::getInstance()->init();
        writeTcpLink(work.path(), MODBUS_TCP_DRIVER, port);
        comm->initLinks();
    }

    void TearDown() override
    {
        his->stop();
        comm->stopLinks();
        IotToMqttComm::getInstance()->stop(2000);
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

class HistoryUpload : public History, public ::testing::WithParamInterface<bool> {
protected:
    // The next batch of one group, checked for its envelope.
    QJsonObject batch(int groupId)
    {
        const bool zip = GetParam();
        AgentUpload up = agent->receiveTopic(zip ? "/DevSend/Sequential/HisDataCompress" : "/DevSend/Sequential/HisData",
                                             3000);
        EXPECT_TRUE(up.ok());
        EXPECT_EQ(up.envelope.value("zip").toBool(), zip);
        EXPECT_EQ(up.msg.value("sn_code").toString(), kSerial);
        EXPECT_EQ(up.msg.value("group_id").toInt(-1), groupId);
        return up.msg;
    }
    void ack(int groupId)
    {
        ASSERT_TRUE(agent->send(QString(R"({"topic":"/DevRecv/HisData","msg":"{\"status\":\"yes\",\"group_id\":%1}"})")
                                    .arg(groupId)
                                    .toUtf8()));
    }
};

TEST_P(HistoryUpload, BatchesPerGroupLeaveOnlyWhenAcknowledged)
{
    slave->setHolding(0, 1234);
    slave->setHolding(10, 'i' << 8 | 't');
    slave->setHolding(11, '\'' << 8 | 's');  // and a zero word to end the text
    start({group(5, 2, trigger(2, 1)),
           group(6, 1, R"("sample_interval":"0,0,50")",
                 {point(0), point(10, 7, R"("data_totalDigits":6,"data_devimalDigits":3,)")})},
          QString(R"("upload_func_state":true,"compressed":%1)").arg(GetParam() ? "true" : "false"));
    ASSERT_TRUE(deviceShows("4X", 11, '\'' << 8 | 's'));
    g_now = 100;
    ASSERT_TRUE(rowsReach(6, 1));
    g_now = 150;
    ASSERT_TRUE(rowsReach(6, 2));
    EXPECT_EQ(column("data", 6).value(0), "1234\nit's");
    EXPECT_FALSE(agent->receiveTopic("HisData", 300).ok());  // the cloud is down: rows wait

    // The cloud comes up: what waited goes at once, a batch per group.
    ASSERT_TRUE(agent->send(R"({"topic":"mqtt_status_Notification","status":true})"));
    QJsonObject six = batch(6);
    EXPECT_EQ(six.value("data_samples").toString(), "0_0,7_-1");
    const QJsonArray data = six.value("data").toArray();
    ASSERT_EQ(data.size(), 2);
    EXPECT_EQ(data[0].toObject().value("data_text").toString(), "1234\nit's");
    EXPECT_EQ(data[1].toObject().value("data_time").toString(), QString::number(150 - g_zonetime));

    // An edge samples group 5 and starts a pass.
    const auto edge = [&] {
        slave->setCoil(1, false);
        ASSERT_TRUE(deviceShows("0X", 1, 0));
        QThread::msleep(300);  // the service sees the bit clear
        slave->setCoil(1, true);
    };
    ASSERT_NO_FATAL_FAILURE(edge());
    QJsonObject five = batch(5);
    EXPECT_EQ(five.value("data_samples").toString(), "0_0");
    EXPECT_EQ(five.value("data").toArray().size(), 1);

    // A batch in flight is not sent again at once, nor grown: the second
    // edge's row waits for the next batch of its group.
    ASSERT_NO_FATAL_FAILURE(edge());
    ASSERT_TRUE(rowsReach(5, 2));
    EXPECT_FALSE(agent->receiveTopic("HisData", 800).ok());

    // Unknown groups delete nothing. Group 6 is never acknowledged, yet
    // group 5's acknowledgement deletes what it carried and sends the next
    // batch at once; a second acknowledgement of it deletes nothing.
    ack(99);
    ack(5);
    QJsonObject next = batch(5);
    EXPECT_EQ(next.value("data").toArray().size(), 1);
    EXPECT_EQ(rows(5), 1);
    EXPECT_EQ(rows(6), 2);
    EXPECT_TRUE(log.contains("recv history ack for group 99 with no batch in flight, ignored"));
    ack(6);
    EXPECT_TRUE(rowsReach(6, 0));
    g_now = 200;
    ASSERT_TRUE(rowsReach(6, 1));
    ack(6);  // that batch is gone already: the new row was never sent
    ack(5);
    EXPECT_TRUE(rowsReach(5, 0));
    EXPECT_EQ(rows(6), 1);
}

INSTANTIATE_TEST_SUITE_P(Plain, HistoryUpload, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Compressed, HistoryUpload, ::testing::Values(true));
