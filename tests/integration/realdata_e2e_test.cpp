// The running gateway uploads a Modbus TCP slave's registers to a nanomsg
// peer standing in for the local agent.
#include "SQLiteDB/SQLiteDB.h"
#include "fragmentproxy.h"
#include "gatewaybox.h"
#include "modbusmaster.h"
#include "tcplink.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QJsonArray>

#include <cstring>
#include <gtest/gtest.h>
#include <memory>

using namespace lumbra::test;

namespace {

const char *const kSerial = GatewayBox::kSerial;

QString pointJson(int code, const QString &fields, const QString &block, const QString &no, const char *link = "PLC1")
{
    return QString(R"({"data_code":%1,%2,"data_readAddress":{"link":"%5","block":"%3","no":"%4","sta":1,"length":1}})")
        .arg(code)
        .arg(fields, block, no, link);
}

// code -> text of one upload.
QMap<int, QString> values(const AgentUpload &up)
{
    QMap<int, QString> out;
    for (const QJsonValue &v : up.msg.value("data").toArray())
        out.insert(v.toObject().value("code").toInt(), v.toObject().value("data").toString());
    return out;
}

class RealTimeUpload : public ::testing::Test {
protected:
    GatewayBox box{MODBUS_TCP_DRIVER};
    ModbusSlave *slave = &box.slave();
    AgentPeer *agent = &box.agent();

    void SetUp() override { ASSERT_TRUE(box.ready()); }

    void start(const QString &settings, const QStringList &points)
    {
        box.writeConfig("RealTimeConfiguration.json",
                        QString(R"({"upload_func_state":true,%1,"data":[%2]})").arg(settings, points.join(',')).toUtf8());
        ASSERT_TRUE(box.start());
    }
    ChildProcess &gw() { return box.gateway(); }

    // The next RTD upload, checked for its full topic.
    AgentUpload next(int timeoutMs = 3000)
    {
        AgentUpload up = agent->receiveTopic("/DevSend/RTD", timeoutMs);
        if (up.ok()) {
            EXPECT_TRUE(up.topic.startsWith(QString("/") + kSerial + "_")) << up.topic.toStdString();
        }
        return up;
    }

    // Uploads until one carries want (the link needs a poll or two first).
    bool eventuallyUploads(const QMap<int, QString> &want, int timeoutMs = 8000)
    {
        QElapsedTimer t;
        t.start();
        QMap<int, QString> last;
        while (t.elapsed() < timeoutMs) {
            AgentUpload up = next();
            last = values(up);
            if (last == want)
                return true;
        }
        ADD_FAILURE() << "last upload: " << QStringList(last.values()).join(' ').toStdString() << "\n"
                      << gw().output().toStdString();
        return false;
    }
};

}  // namespace

TEST_F(RealTimeUpload, EveryTypeArrivesFormatted)
{
    slave->setCoil(5, true);
    const float f = 21.5f;
    uint32_t bits;
    std::memcpy(&bits, &f, 4);
    // 32-bit values high word first (100000, -50, the float), text high byte first.
    const uint16_t regs[] = {65000, uint16_t(-1234), 0x0001, 0x86A0, 0xFFFF, uint16_t(-50), 0x1234, 0x12AB,
                             uint16_t(bits >> 16), uint16_t(bits), 'P' << 8 | 'u', 'm' << 8 | 'p', '0' << 8 | '1', 100};
    for (int i = 0; i < int(std::size(regs)); ++i)
        slave->setHolding(i, regs[i]);
    start(R"("global_upload_time":0)",
          {pointJson(1, R"("data_type":-1)", "0X", "5"), pointJson(2, R"("data_type":0)", "4X", "0"),
           pointJson(3, R"("data_type":2,"data_devimalDigits":2)", "4X", "1"),
           pointJson(4, R"("data_type":1)", "4X", "2"),
           pointJson(5, R"("data_type":3,"data_devimalDigits":1,"data_deal_type":1,"zoom_ratio":"2","zoom_offset":"1")",
                     "4X", "4"),
           pointJson(6, R"("data_type":4)", "4X", "6"), pointJson(7, R"("data_type":4)", "4X", "7"),
           pointJson(8, R"("data_type":6,"data_devimalDigits":2)", "4X", "8"),
           pointJson(9, R"("data_type":7,"data_totalDigits":6)", "4X", "10"),
           pointJson(10, R"("data_type":0,"data_devimalDigits":1,"data_deal_type":1,"zoom_ratio":"0.5","zoom_offset":"3")",
                     "4X", "13"),
           pointJson(11, R"("data_type":0)", "4X", "0", "NOLINK")});
    // A point on a link that does not exist has no value to send.
    EXPECT_TRUE(eventuallyUploads({{1, "1"}, {2, "65000"}, {3, "-12.34"}, {4, "100000"}, {5, "-9.9"}, {6, "1234"},
                                   {7, "0"}, {8, "21.50"}, {9, "Pump01"}, {10, "5.3"}}));
    EXPECT_TRUE(gw().running());
}

TEST_F(RealTimeUpload, ChangedOnlySendsChangesAndEverythingAfterTheAgentConnects)
{
    slave->setHolding(0, 1);
    slave->setHolding(1, 2);
    start(R"("global_upload_time":0,"global_value_change_setting":true)",
          {pointJson(1, R"("data_type":0)", "4X", "0"), pointJson(2, R"("data_type":0)", "4X", "1")});
    ASSERT_TRUE(eventuallyUploads({{1, "1"}, {2, "2"}}, 8000));
    EXPECT_FALSE(next(2500).ok());                                // two quiet seconds: nothing sent
    slave->setHolding(1, 7);
    EXPECT_EQ(values(next()), (QMap<int, QString>{{2, "7"}}));
    ASSERT_TRUE(box.cloudUp());
    EXPECT_EQ(values(next()), (QMap<int, QString>{{1, "1"}, {2, "7"}}));
    EXPECT_TRUE(gw().waitForOutput("get mqtt status:1", 2000));
}

TEST_F(RealTimeUpload, UploadTimeTenSendsAfterTheFirstSecondThenEveryTenSeconds)
{
    QElapsedTimer t;
    t.start();
    start(R"("global_upload_time":10)", {pointJson(1, R"("data_type":0)", "4X", "0")});
    ASSERT_TRUE(next(4000).ok());
    const qint64 first = t.elapsed();
    EXPECT_LT(first, 3000);
    EXPECT_FALSE(next(8500).ok());
    ASSERT_TRUE(next(3000).ok());
    EXPECT_NEAR(t.elapsed() - first, 10000, 1200);
}

// The simulated PLC lacks registers 52 and 54, inside the block the points
// 50-54 merge into; later it dies behind a proxy that keeps the connection.
// Nothing the device did not send may leave the box or raise an alarm.
TEST_F(RealTimeUpload, ValuesTheDeviceDidNotSendAreNeverUploadedStoredOrAlarmed)
{
    QTemporaryDir simDir;
    ChildProcess sim;
    const int simPort = freeTcpPort();
    ASSERT_TRUE(sim.start(LUMBRA_PLCSIM_BINARY, {"--tcp", QString::number(simPort), "--holes", "52,54"}, simDir.path()));
    ASSERT_TRUE(sim.waitForOutput("plcsim: Modbus TCP on", 5000));
    FragmentProxy proxy(simPort);
    ASSERT_TRUE(proxy.ok());
    {
        const Master m = tcpMaster(simPort);
        const uint16_t low[] = {510, 0}, high[] = {513};
        ASSERT_TRUE(m);
        ASSERT_EQ(modbus_write_registers(m.get(), 50, 2, low), 2);
        ASSERT_EQ(modbus_write_registers(m.get(), 53, 1, high), 1);
    }
    box.writeConfig("LinkConfiguration.json", ("{\"data\":[" + tcpLinkJson(proxy.port(), 20) + "]}").toUtf8());
    const QString u16 = R"("data_type":0)";
    const auto alarm = [](int index, int no) {
        return QString(R"({"index":%1,"alarm_level":1,"condition":4,"data_type":0,"limit_value":"1",)"
                       R"("data_readAddress":{"link":"PLC1","block":"4X","no":"%2","sta":1,"length":1}})")
            .arg(index)
            .arg(no);
    };
    box.writeConfig("AlarmConfiguration.json",
                    QString(R"({"upload_func_state":true,"data":[%1,%2]})").arg(alarm(1, 52), alarm(2, 51)).toUtf8());
    box.writeConfig("HistoryConfiguration.json",
                    QString(R"({"upload_func_state":true,"data":[{"group_id":1,"sample_method":1,)"
                            R"("sample_interval":"0,0,1","sample_data":[%1,%2]}]})")
                        .arg(pointJson(1, u16, "4X", "50"), pointJson(2, u16, "4X", "52"))
                        .toUtf8());
    start(R"("global_upload_time":0)", {pointJson(1, u16, "4X", "50"), pointJson(2, u16, "4X", "52"),
                                        pointJson(3, u16, "4X", "53"), pointJson(4, u16, "4X", "54"),
                                        pointJson(5, u16, "4X", "51")});
    ASSERT_TRUE(box.cloudUp());

    // Only what exists, for several passes; the real zero alarms, the hole does not.
    ASSERT_TRUE(eventuallyUploads({{1, "510"}, {3, "513"}, {5, "0"}}));
    for (int pass = 0; pass < 3; ++pass)
        EXPECT_EQ(values(next()), (QMap<int, QString>{{1, "510"}, {3, "513"}, {5, "0"}}));
    const auto column = [&](const char *file, const char *sql) {
        SQLiteDB db((box.workPath() + "/" + file).toLocal8Bit().constData());
        QStringList cells;
        db.select(sql, cells);
        return cells;
    };
    const auto alarmEvents = [&] { return column("alarm_iot.db", "select alarm_id, type from alarmdata"); };
    const auto rows = [&] { return column("history_iot.db", "select data from historydata where sampleID=1"); };
    EXPECT_EQ(agent->receiveTopic("/DevSend/Alarm", 3000).msg.value("alarm_index").toInt(), 2);
    EXPECT_EQ(alarmEvents(), (QStringList{"2", "1"}));  // the real zero alarmed, the hole did not
    // A sample taken before the first poll answered holds an empty field,
    // never a number (a slow, emulated machine gets such a row).
    ASSERT_TRUE(eventually([&] { return rows().contains("510\n"); }, 5000)) << rows().join('|').toStdString();
    for (const QString &row : rows())
        EXPECT_TRUE(row == "510\n" || row == "\n") << row.toStdString();

    // Dead: nothing left to upload, empty fields stored, no recovery raised.
    proxy.setDeviceDead(true);
    EXPECT_TRUE(eventually([&] { return rows().contains("\n"); }, 8000)) << rows().join('|').toStdString();
    while (next(300).ok()) {
    }
    EXPECT_FALSE(next(2500).ok());
    EXPECT_EQ(alarmEvents(), (QStringList{"2", "1"}));
    proxy.setDeviceDead(false);
    EXPECT_TRUE(eventuallyUploads({{1, "510"}, {3, "513"}, {5, "0"}}, 15000));
    EXPECT_TRUE(gw().running());
}
