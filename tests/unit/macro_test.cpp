// The macro engine on local registers: which scripts run and when, what the
// script text registers for polling, scripts that never end, fail or eat
// memory, the sandbox switch, and the script timer bank.
#include "Macro/HmiToMacroInterface.h"
#include "Macro/Macro.h"
#include "device_comm/communication.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

Macro *const macro = Macro::getInstance();
communication *const comm = communication::getInstance();

QJsonObject script(int id, int type, const QString &text, int flag = 1, int cycle = 0)
{
    return QJsonObject{{"id", id}, {"name", QString("s%1").arg(id)}, {"type", type}, {"cycly_time", cycle},
                       {"flag", flag}, {"text", text}};
}

void writeScripts(const WorkDir &work, const QJsonArray &items)
{
    work.write("iotRunTime/ScriptConfiguration.json", QJsonDocument(QJsonObject{{"data", items}}).toJson());
}

void limits(const BoxRoot &box, const QByteArray &keys)
{
    box.write("/usr/brenta/iot_work/iot_config.ini", "[macro]\n" + keys);
}

QString setLW(int addr, const QString &value)
{
    return QString("setdata(\"\", \"LW\", %1, %2, 0, nil, DATA_TYPE_WUB)").arg(addr).arg(value);
}

int lw(int addr)
{
    uint16_t v = 0;
    comm->getCommValue("", "LW", addr, 0, 1, reinterpret_cast<uchar *>(&v), 2);
    return v;
}

void setLB(int addr, uchar on) { comm->setCommValue("", "LB", addr, 0, 1, &on, 1); }

// Runs a stored script on the engine and waits for it.
int runNow(int id)
{
    const int rc = macro->runLua(id);
    EXPECT_TRUE(macro->sync(10000));
    return rc;
}

}  // namespace

TEST(MacroComments, CutLineCommentsTheWayAddressCollectionExpects)
{
    const struct {
        const char *in, *out;
    } cases[] = {
        {"a = 1 -- note\nb = 2", "a = 1 \nb = 2"},
        {"a = 1 -- last line", "a = 1 "},
        // The search resumes at the old line break, so line 2 is passed over.
        {"a = 1 --x\n--line2\nb", "a = 1 \n--line2\nb"},
        {"s = \"a--b\"\nc", "s = \"a\nc"},
        {"--[[ block\nstill]] x", "\nstill]] x"},
        {"no comment", "no comment"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Macro::claerComment(c.in), QString(c.out)) << c.in;
}

TEST(MacroScripts, FlagEnableBitRunOnceAndReload)
{
    WorkDir work;
    BoxRoot box;
    LogCapture log;
    QJsonObject gated = script(6, 3, setLW(13, "(x13 or 0) + 1") + " x13 = (x13 or 0) + 1");
    gated.insert("save_bit_address_flag", 1);
    gated.insert("save_bit_address", QJsonObject{{"link", ""}, {"block", "LB"}, {"no", "5"}, {"sta", 0}});
    writeScripts(work, {script(1, 1, setLW(10, "1"), 0), script(2, 1, "once = (once or 0) + 1 " + setLW(11, "once")),
                        script(5, 1, setLW(12, "7")), gated});
    macro->init();
    ASSERT_TRUE(eventually([] { return lw(12) == 7; }));
    EXPECT_TRUE(log.contains("run-once scripts start: every link has polled once"));
    EXPECT_EQ(lw(10), 0);
    EXPECT_TRUE(log.contains("IOT macro verification fail"));
    EXPECT_EQ(runNow(1), 0);
    EXPECT_EQ(lw(11), 1);

    setLB(5, 0);
    runNow(6);
    EXPECT_EQ(lw(13), 0);
    setLB(5, 1);
    EXPECT_EQ(runNow(6), 1);
    EXPECT_EQ(lw(13), 1);

    macro->init();  // a reload does not repeat run-once scripts
    ASSERT_TRUE(macro->sync(5000));
    EXPECT_EQ(lw(11), 1);
    EXPECT_EQ(macro->runLua(99), 0);
    macro->stop();
}

TEST(MacroScripts, AnHourOfFailingPassesLeavesTheStackAsItWas)
{
    WorkDir work;
    BoxRoot box;
    writeScripts(work, {script(1, 3, "error('every pass')"), script(2, 3, "return 1, 2, 3"),
                        script(3, 3, "local t = {} t[nil] = 1"), script(4, 3, "runScriptFromId(2) runScriptText('x(')")});
    macro->init();
    runNow(1);
    const int height = macro->stackHeight();
    EXPECT_GE(height, 0);
    // 72000 passes of 50 ms, handed over in the queue's measure.
    for (int pass = 0; pass < 72000; ++pass) {
        macro->runLua(1 + pass % 4);
        if (pass % 200 == 199) {
            ASSERT_TRUE(macro->sync(10000));
        }
    }
    ASSERT_TRUE(macro->sync(10000));
    EXPECT_EQ(macro->stackHeight(), height);
    macro->stop();
}

TEST(MacroScripts, CyclicScriptsRunFromTheThreadAtTheirPeriod)
{
    WorkDir work;
    BoxRoot box;
    writeScripts(work, {script(1, 2, "n1 = (n1 or 0) + 1 " + setLW(20, "n1"), 1, 0),
                        script(2, 2, setLW(21, "1"), 1, 3600000), script(3, 2, "error('cyclic')", 1, 0),
                        script(4, 2, "n4 = (n4 or 0) + 1 " + setLW(22, "n4"), 1, 0)});
    macro->init();
    EXPECT_TRUE(eventually([] { return lw(20) >= 5 && lw(22) >= 5; }, 3000));
    EXPECT_EQ(lw(21), 0);
    macro->stop();
}

TEST(MacroScripts, MissingOrBrokenFileLeavesNoScripts)
{
    WorkDir work;
    BoxRoot box;
    LogCapture log;
    macro->init();
    EXPECT_TRUE(log.contains("./iotRunTime/ScriptConfiguration.json No such file"));
    work.write("iotRunTime/ScriptConfiguration.json", "{\"data\": [ {\"id\": 1,");
    macro->init();
    EXPECT_TRUE(log.contains("json parse fail ["));
    EXPECT_TRUE(log.contains("json parse null"));
    EXPECT_EQ(macro->runLua(1), 0);
    macro->stop();
}

TEST(MacroScripts, OnlineEditsReplaceAppendAndDeleteById)
{
    WorkDir work;
    BoxRoot box;
    macro->setConfigFile(R"({"operation_type":"add","data":[{"id":1,"type":3,"flag":1,"text":"a = 1"},
                                                            {"id":2,"type":3,"flag":1,"text":"b = 1"}]})");
    macro->setConfigFile(R"({"operation_type":"modify","data":[{"id":2,"type":3,"flag":1,"text":")" +
                         setLW(30, "5").replace("\"", "\\\"") + R"("},{"id":3,"type":3,"flag":1,"text":"c"}]})");
    macro->setConfigFile(R"({"operation_type":"delete","ids":"1"})");
    macro->setConfigFile("not json");
    macro->init();
    EXPECT_EQ(macro->runLua(1), 0);
    EXPECT_EQ(runNow(2), 1);
    EXPECT_EQ(lw(30), 5);
    EXPECT_EQ(macro->runLua(3), 1);
    macro->stop();
}

TEST(MacroAddresses, WrittenOutGetdataCallsBecomePolledAddresses)
{
    WorkDir work;
    BoxRoot box;
    LogCapture log;
    writeScripts(work, {script(1, 3, R"(local a = getdata("PLC1", "4X", 10, 1, 1, DATA_TYPE_WUB)
local b = getdata( 'PLC1' , '4X' , 10 , 1 , 1 , DATA_TYPE_WUB ) -- same key
local c = getdata("PLC1", "4X", 20, 1, 2, DATA_TYPE_DF)
local d = getdata("PLC1", "LW", 1, 0, 1, DATA_TYPE_WUB)
local e = getdata("PLC1", "4X", 30)
-- getdata("PLC1", "4X", 40, 1, 1, DATA_TYPE_WUB)
)")});
    macro->init();
    const QList<AddressInfo> found = macro->externalAddrList();
    ASSERT_EQ(found.size(), 2);
    EXPECT_EQ(found[0].addr, "10");
    EXPECT_EQ(found[0].length, 1);
    EXPECT_EQ(found[1].addr, "20");
    EXPECT_EQ(found[1].length, 4);  // two floats of two words each
    EXPECT_TRUE(log.contains("macro getdata err:"));
    macro->stop();
}

// Each script stops with its id in the log; the counter beside them goes on.
TEST(MacroWatchdog, ScriptsThatNeverEndAreStoppedEveryPassAndLoggedOnce)
{
    WorkDir work;
    BoxRoot box;
    LogCapture log;
    limits(box, "time_limit_ms=200\n");
    writeScripts(work, {script(1, 2, "spins = (spins or 0) + 1 " + setLW(60, "spins") + " while true do end"),
                        script(2, 2, "n = (n or 0) + 1 " + setLW(61, "n")),
                        script(3, 2, "while true do pcall(function() while true do end end) end"),
                        script(4, 2, "timerWaitFor(100000)"),
                        script(5, 2, "local co = coroutine.wrap(function() while true do end end) co()"),
                        script(6, 2, "runScriptText('while true do end') " + setLW(62, "1"))});
    macro->init();
    EXPECT_TRUE(eventually([] { return lw(60) >= 3 && lw(61) >= 3; }, 20000));
    for (int id : {1, 3, 4, 5, 6})
        EXPECT_EQ(log.count(QString("script %1 stopped: time limit of 200 ms").arg(id)), 1) << id;
    EXPECT_EQ(lw(62), 0);  // the caller of a script that ran out of time stops too
    // The engine takes queued work between passes, not after the endless ones.
    QElapsedTimer t;
    t.start();
    macro->runLua(setLW(63, "1"));
    EXPECT_TRUE(eventually([] { return lw(63) == 1; }, 5000));
    EXPECT_LT(t.elapsed(), 2000);
    // Stopping the engine does not wait out a running script.
    limits(box, "time_limit_ms=600000\n");
    macro->init();
    ASSERT_TRUE(eventually([&] { return lw(60) >= 4; }, 5000));
    t.restart();
    macro->stop();
    EXPECT_LT(t.elapsed(), 1000);
}

TEST(MacroWatchdog, BadScriptsAreLoggedWithTheirIdAndTheOthersGoOn)
{
    WorkDir work;
    BoxRoot box;
    LogCapture log;
    limits(box, "time_limit_ms=500\nmemory_limit_kb=2048\n");
    const struct {
        const char *text, *logged;
    } cases[] = {
        {"this is not lua", "script 1: [string \"this is not lua\"]:1: syntax error"},
        {"error('boom')", "script 2: [string \"error('boom')\"]:1: boom"},
        {"local function f() return 1 + f() end f()", "script 3"},
        {"local function g() return g() end g()", "script 4 stopped: time limit of 500 ms"},
        {"local t = {} while true do t[#t + 1] = {} end", "script 5 stopped: memory limit of 2048 KB"},
        {"getdata({}, {}, {}, {}, {}, {}) setdata(nil) timerRun('x') readdevice({}) string.rep()",
         "script 6: [string \"getdata"},
    };
    QJsonArray items{script(10, 3, "n = (n or 0) + 1 " + setLW(64, "n"))};
    for (int i = 0; i < 6; ++i)
        items.append(script(i + 1, 3, cases[i].text));
    writeScripts(work, items);
    macro->init();
    for (int i = 0; i < 6; ++i) {
        runNow(i + 1);
        EXPECT_TRUE(log.contains(cases[i].logged)) << cases[i].text;
        runNow(10);
        EXPECT_EQ(lw(64), i + 1) << cases[i].text;
    }
    // Memory that globals keep would fail every later run: the interpreter
    // starts afresh, and its globals with it.
    macro->runLua("hog = {} while true do hog[#hog + 1] = string.rep('y', 100) .. #hog end");
    ASSERT_TRUE(macro->sync(10000));
    EXPECT_TRUE(log.contains("script interpreter restarted: its globals held"));
    macro->runLua(setLW(65, "n or 99"));
    ASSERT_TRUE(macro->sync(10000));
    EXPECT_EQ(lw(65), 99);
    macro->stop();
}

TEST(MacroSandbox, TheSwitchTakesProcessesAndWritesOutsideTheWorkingDirectory)
{
    WorkDir work;
    BoxRoot box;
    QTemporaryDir outside;
    ASSERT_TRUE(QFile::link(outside.path(), work.file("escape")));
    writeFile(outside.path() + "/keep", "x");
    const QString probe = QString(R"(
local function bit(v) return v and 1 or 0 end
%1 %2 %3
local f = io.open('inside.txt', 'w') %4 if f then f:write('x') f:close() end
%5 %6 %7 %8 %9)")
                              .arg(setLW(70, "bit(os.execute ~= nil)"), setLW(71, "bit(io.popen ~= nil)"),
                                   setLW(72, "bit(os.exit ~= nil)"), setLW(73, "bit(f ~= nil)"),
                                   setLW(74, QString("bit(io.open('%1/new', 'w') ~= nil)").arg(outside.path())),
                                   setLW(75, "bit(io.open('escape/new2', 'a') ~= nil)"),
                                   setLW(76, QString("bit(os.remove('%1/keep') ~= nil)").arg(outside.path())),
                                   setLW(77, "bit(io.open('inside.txt') ~= nil)"))
                              .arg(setLW(78, "bit(debug.sethook ~= nil)"));  // the watchdog's, always
    writeScripts(work, {script(1, 3, probe)});
    const struct {
        const char *setting;
        QList<int> expected;  // LW 70..78
    } cases[] = {
        {"sandbox=1\n", {0, 0, 0, 1, 0, 0, 0, 1, 0}},
        // Another size: a file rewritten within the same clock tick with the
        // same size looks unchanged to QSettings.
        {"; the default\nsandbox=0\n", {1, 1, 1, 1, 1, 1, 1, 1, 0}},
    };
    for (const auto &c : cases) {
        limits(box, c.setting);
        macro->init();
        runNow(1);
        QList<int> got;
        for (int addr = 70; addr <= 78; ++addr)
            got << lw(addr);
        EXPECT_EQ(got, c.expected) << c.setting;
    }
    macro->stop();
}

TEST(MacroTimers, LimitStopWrapOutputAndScripts)
{
    int argc = 1;
    char name[] = "macro_test";
    char *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    WorkDir work;
    BoxRoot box;
    writeScripts(work, {script(7, 3, "hits = (hits or 0) + 1 " + setLW(50, "hits"))});
    macro->init();
    HmiToMacroInterface *t = macro->hmiToMacro();

    EXPECT_EQ(t->timerRun(32), -1);
    EXPECT_TRUE(t->tickerActive());
    EXPECT_EQ(t->timerSetLimit(0, 5, 1), 1);
    EXPECT_EQ(t->timerSetOutput(0, 0, "LW", 40, 0), 1);
    EXPECT_EQ(t->timerOutRun(0, 7), 1);
    t->timerRun(0);
    t->timerSetLimit(1, 3, 0);
    t->timerSkip(1, 2);
    t->timerRun(1);
    QList<int> outputs, wrapped, hits;
    for (int tick = 0; tick < 7; ++tick) {
        t->sysTimerForMacro();
        ASSERT_TRUE(macro->sync(5000));
        outputs << lw(40);
        wrapped << int(t->timerValue(1));
        hits << lw(50);
    }
    EXPECT_EQ(outputs, (QList<int>{1, 2, 3, 4, 5, 5, 5}));
    EXPECT_EQ(t->timerState(0), 0);
    EXPECT_EQ(hits, (QList<int>{0, 0, 0, 0, 0, 1, 1}));  // on the tick after the output showed the limit
    EXPECT_EQ(wrapped, (QList<int>{2, 4, 2, 4, 2, 4, 2}));

    t->timerReset(2, 3725);
    EXPECT_EQ(t->timerStr(2, 0), "01:02:05");
    t->timerReset(2, 360000);
    EXPECT_EQ(t->timerStr(2, 0), "100:00:00");
    EXPECT_EQ(t->timerStr(32, 0), "");
    EXPECT_EQ(t->timerState(-1), -1);
    t->timerStop(1);
    EXPECT_FALSE(t->tickerActive());
    macro->stop();
}
