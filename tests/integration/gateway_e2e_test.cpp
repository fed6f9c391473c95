// The running gateway against a Modbus TCP slave and a nanomsg peer standing in
// for the local agent: its uploads, and its scripts.
#include "SQLiteDB/SQLiteDB.h"
#include "fragmentproxy.h"
#include "gatewaybox.h"
#include "modbusmaster.h"
#include "platformsim.h"
#include "tcplink.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

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

namespace {

QJsonObject script(int id, int type, const QString &text, int cycle = 0)
{
    return QJsonObject{{"id", id}, {"type", type}, {"cycly_time", cycle}, {"flag", 1}, {"text", text}};
}

QString setReg(int addr, const QString &value)
{
    return QString("setdata('PLC1', '4X', %1, %2, 1, nil, DATA_TYPE_WUB)").arg(addr).arg(value);
}

class ScriptGateway : public ::testing::Test {
protected:
    GatewayBox box{MODBUS_TCP_DRIVER};
    ModbusSlave &slave = box.slave();
    PlatformSim sim{box.agent()};

    void SetUp() override { ASSERT_TRUE(box.ready()); }

    void start(const QJsonArray &scripts)
    {
        box.writeConfig("ScriptConfiguration.json", QJsonDocument(QJsonObject{{"data", scripts}}).toJson());
        ASSERT_TRUE(box.start());
    }
    // Plays the platform (and drains the gateway's output) until cond holds.
    bool until(const std::function<bool()> &cond, int timeoutMs)
    {
        return sim.serve(
            [&] {
                log();
                return cond();
            },
            timeoutMs);
    }
    QString log()
    {
        box.gateway().waitForOutput(QString(QChar(1)), 0);
        return box.gateway().output();
    }
};

}  // namespace

TEST_F(ScriptGateway, AnEndlessScriptIsStoppedEveryPassWhileTheCounterAndTheCloudGoOn)
{
    box.writeConfig("RealTimeConfiguration.json",
                    R"({"upload_func_state":false,"data":[{"data_code":9,"data_type":0,)"
                    R"("data_readAddress":{"link":"PLC1","block":"4X","no":"40","sta":1,"length":1}}]})");
    start({script(1, 2, "spins = (spins or 0) + 1 " + setReg(31, "spins") + " while true do end"),
           script(2, 2, "n = (n or 0) + 1 " + setReg(30, "n"))});
    ASSERT_TRUE(until([&] { return slave.holding(30) >= 2; }, 15000)) << log().toStdString();
    const int counted = slave.holding(30);

    QElapsedTimer answered;
    answered.start();
    sim.command("/DevRecv/WriteData", R"([{"data_code":"9","data_value":"1234"}])");
    ASSERT_TRUE(until([&] { return !sim.uploadsTo("/DevSend/RTD").isEmpty(); }, 5000));
    EXPECT_LT(answered.elapsed(), 2000);
    EXPECT_EQ(slave.holding(40), 1234);

    // Each pass starts the endless script afresh and stops it.
    ASSERT_TRUE(until([&] { return slave.holding(30) >= counted + 3 && slave.holding(31) >= 4; }, 20000))
        << log().toStdString();
    EXPECT_EQ(log().count("script 1 stopped: time limit of 1000 ms"), 1) << log().toStdString();
    EXPECT_TRUE(box.gateway().running());
}

TEST_F(ScriptGateway, TwentyOnlineEditsDuringARunOnceScriptLeaveTheLastInForce)
{
    box.writeBox("/usr/brenta/iot_work/iot_config.ini", "[macro]\ntime_limit_ms=8000\n");
    start({script(1, 1, setReg(33, "1") + " local t0 = os.time() while os.time() - t0 < 4 do end " + setReg(33, "2")),
           script(2, 2, setReg(32, "0"), 100)});
    ASSERT_TRUE(until([&] { return slave.holding(33) == 1; }, 15000)) << log().toStdString();
    for (int k = 1; k <= 20; ++k) {
        const QJsonObject item{{"script_id", 2}, {"type", 2}, {"cycly_time", 100}, {"flag", 1},
                               {"text", setReg(32, QString::number(k))}};
        const QJsonObject edit{{"operation_type", "modify"}, {"data", QJsonArray{item}}};
        ASSERT_TRUE(sim.command("/DevRecv/OnlineScriptSet", QJsonDocument(edit).toJson(QJsonDocument::Compact)));
    }
    // Acknowledged at once: nothing the cloud sends waits for a script.
    ASSERT_TRUE(until([&] { return sim.uploadsTo("/DevSend/ScriptConfigsetAck").size() == 20; }, 2000));
    EXPECT_EQ(slave.holding(33), 1);
    ASSERT_TRUE(until([&] { return slave.holding(33) == 2 && slave.holding(32) == 20; }, 15000))
        << log().toStdString();
    EXPECT_TRUE(box.gateway().running());
    EXPECT_FALSE(log().contains("PANIC"));
}

// Registers 60-64 get what the cyclic script read, 70-74 the pass on which
// it first had it; 80-81 what the run-once script read at start-up. Eighty
// polled blocks make the link's cycle long, so a value that comes on the
// first call was read out of turn.
TEST_F(ScriptGateway, ScriptsReadTheDeviceOnTheFirstCallHoweverTheyNameTheAddress)
{
    QJsonArray points;
    for (int i = 0; i < 80; ++i)
        points.append(QJsonObject{{"data_code", i + 1}, {"data_type", 0},
                                  {"data_readAddress", QJsonObject{{"link", "PLC1"}, {"block", "4X"},
                                                                   {"no", QString::number(100 + 20 * i)},
                                                                   {"sta", 1}, {"length", 1}}}});
    box.writeConfig("RealTimeConfiguration.json",
                    QJsonDocument(QJsonObject{{"upload_func_state", false}, {"data", points}}).toJson());
    const uint16_t values[] = {1234, 2345, 3456, 4567, 5678, 6789, 7890};
    for (int i = 0; i < 7; ++i)
        slave.setHolding(50 + i, values[i]);
    slave.setHolding(1907, 4321);
    const QString once = "local v = getdata('PLC1', '4X', 55, 1, 1, DATA_TYPE_WUB) " + setReg(80, "v or 9999") +
                         " local a = 50 local w = getdata('PLC1', '4X', a + 6, 1, 1, DATA_TYPE_WUB) " +
                         setReg(81, "w or 9999");
    const QString cyclic = R"(
pass = (pass or 0) + 1
first = first or {}
local function note(slot, v)
  if v == nil or first[slot] then return end
  first[slot] = pass
  setdata('PLC1', '4X', 60 + slot, v, 1, nil, DATA_TYPE_WUB)
  setdata('PLC1', '4X', 70 + slot, pass, 1, nil, DATA_TYPE_WUB)
end
note(0, getdata('PLC1', '4X', 50, 1, 1, DATA_TYPE_WUB))
local base = 50
note(1, getdata("PLC1", "4X", base + 1, 1, 1, DATA_TYPE_WUB))
local link = "PLC1"
note(2, getdata(link, "4X", 52, 1, 1, DATA_TYPE_WUB))
local id = 0
note(3, getdata(id, "4X", 53, 1, 1, DATA_TYPE_WUB))
for i, a in ipairs({54}) do note(3 + i, getdata(link, "4X", a, 1, 1, DATA_TYPE_WUB)) end
if pass == 1 then
  hmiPrint('FIRST READ START')
  local v, err = getdata(link, '4X', 1900 + 7, 1, 1, DATA_TYPE_WUB)
  hmiPrint('FIRST READ ' .. tostring(v) .. ', ' .. tostring(err))
  local w, why = getdata(link, '4X', 2000 + 100, 1, 1, DATA_TYPE_WUB)
  hmiPrint('MISSING READ ' .. tostring(w) .. ', ' .. tostring(why))
end
)";
    start({script(1, 1, once), script(2, 2, cyclic, 300)});
    ASSERT_TRUE(box.gateway().waitForOutput("FIRST READ START", 20000)) << log().toStdString();
    QElapsedTimer took;
    took.start();
    ASSERT_TRUE(box.gateway().waitForOutput("FIRST READ 4321, nil", 5000)) << log().toStdString();
    EXPECT_LT(took.elapsed(), 800);
    ASSERT_TRUE(box.gateway().waitForOutput("MISSING READ nil, refused by the device", 5000)) << log().toStdString();
    const auto read = [&](int from, int count) {
        QList<int> got;
        for (int i = 0; i < count; ++i)
            got << slave.holding(from + i);
        return got;
    };
    ASSERT_TRUE(until([&] { return !read(60, 5).contains(0) && !read(80, 2).contains(0); }, 15000))
        << log().toStdString();
    EXPECT_EQ(read(60, 5), (QList<int>{1234, 2345, 3456, 4567, 5678}));
    EXPECT_EQ(read(70, 5), (QList<int>{1, 1, 1, 1, 1}));
    EXPECT_EQ(read(80, 2), (QList<int>{6789, 7890}));
    EXPECT_TRUE(log().contains("run-once scripts start: every link has polled once")) << log().toStdString();

    // Only polls are left: the cycle the reads above did not wait for.
    const int before = slave.requests();
    until([] { return false; }, 2000);
    EXPECT_LE(slave.requests() - before, 2 * 80) << "a poll cycle shorter than a second";
}

// A device that has stopped answering: the first read of a new address gives
// up within the link's reply time-out, without a value.
TEST_F(ScriptGateway, AFirstReadOfASilentDeviceEndsWithinTheReplyTimeOut)
{
    slave.setSilent(true);
    start({script(1, 2,
                  "if not done then done = true hmiPrint('READ START') local a = 40 "
                  "local v, err = getdata('PLC1', '4X', a + 2, 1, 1, DATA_TYPE_WUB) "
                  "hmiPrint('READ END ' .. tostring(v) .. ', ' .. tostring(err)) end",
                  100)});
    ASSERT_TRUE(box.gateway().waitForOutput("READ START", 15000)) << log().toStdString();
    QElapsedTimer took;
    took.start();
    ASSERT_TRUE(box.gateway().waitForOutput("READ END", 5000)) << log().toStdString();
    EXPECT_LT(took.elapsed(), 200 + 400) << "timeout1 is 200 ms";
    EXPECT_TRUE(log().contains("READ END nil, not read yet") || log().contains("READ END nil, no reply"))
        << log().toStdString();
}

// A dead device answers "no reply" within its time-out; a link whose port
// never opens has no answer at all: the run-once script waits for it no
// longer than the box allows, and its reads say why they have no value.
TEST_F(ScriptGateway, RunOnceScriptsWaitForLinksOnlyAsLongAsTheBoxAllows)
{
    box.writeBox("/usr/brenta/iot_work/iot_config.ini", "[macro]\nstart_wait_ms=3000\n");
    writeFile(box.workPath() + "/iotRunTime/driver/libmodbus_rtu.so", readFile(MODBUS_RTU_DRIVER));
    QJsonObject links = QJsonDocument::fromJson(box.readConfig("LinkConfiguration.json")).object();
    QJsonArray list = links.value("data").toArray();
    list.append(QJsonObject{{"link_name", "LINE2"}, {"link_type", "COM7"}, {"link_driver", "modbus_rtu"},
                            {"baudrate", 9600}, {"data_bit", 8}, {"stop_bit", 1}, {"plc_id", 1}, {"timeout1", 200}});
    links.insert("data", list);
    box.writeConfig("LinkConfiguration.json", QJsonDocument(links).toJson());
    slave.stop();
    QElapsedTimer started;
    started.start();
    QString once;
    for (const char *link : {"PLC1", "LINE2"})
        once += QString("do local v, err = getdata('%1', '4X', 55, 1, 1, DATA_TYPE_WUB) "
                        "hmiPrint('%1 read: ' .. tostring(v) .. ', ' .. tostring(err)) end ")
                    .arg(link);
    start({script(1, 1, once)});
    ASSERT_TRUE(box.gateway().waitForOutput("LINE2 read: nil, not read yet", 15000)) << log().toStdString();
    EXPECT_TRUE(log().contains("PLC1 read: nil, no reply"));
    EXPECT_GE(started.elapsed(), 3000);
    EXPECT_LT(started.elapsed(), 9000);
    EXPECT_TRUE(log().contains("before link(s) LINE2 finished a first poll cycle")) << log().toStdString();
}
