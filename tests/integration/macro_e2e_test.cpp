// The running gateway with scripts, against a libmodbus slave and a nanomsg
// peer playing the agent.
#include "gatewaybox.h"
#include "platformsim.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace lumbra::test;

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
