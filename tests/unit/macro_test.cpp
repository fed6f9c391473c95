// The macro engine on local registers: which scripts run and when, what the
// script text registers for polling, the interpreter's stack over long runs,
// and the script timer bank.
#include "Macro/HmiToMacroInterface.h"
#include "Macro/Macro.h"
#include "device_comm/communication.h"
#include "testsupport.h"

#include <QCoreApplication>
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

TEST(MacroScripts, FlagEnableBitRunOnceAndErrors)
{
    WorkDir work;
    LogCapture log;
    QJsonObject gated = script(6, 3, setLW(13, "(x13 or 0) + 1") + " x13 = (x13 or 0) + 1");
    gated.insert("save_bit_address_flag", 1);
    gated.insert("save_bit_address", QJsonObject{{"link", ""}, {"block", "LB"}, {"no", "5"}, {"sta", 0}});
    writeScripts(work, {script(1, 1, setLW(10, "1"), 0), script(2, 1, "once = (once or 0) + 1 " + setLW(11, "once")),
                        script(3, 1, "this is not lua"), script(4, 1, "error('boom')"), script(5, 1, setLW(12, "7")),
                        gated});
    macro->init();
    EXPECT_EQ(lw(10), 0);
    EXPECT_TRUE(log.contains("IOT macro verification fail"));
    EXPECT_EQ(macro->runLua(1), 0);
    EXPECT_EQ(lw(11), 1);
    EXPECT_TRUE(log.contains("boom"));
    EXPECT_TRUE(log.contains("syntax error"));
    EXPECT_EQ(lw(12), 7);

    setLB(5, 0);
    EXPECT_EQ(macro->runLua(6), 0);
    EXPECT_EQ(lw(13), 0);
    setLB(5, 1);
    EXPECT_EQ(macro->runLua(6), 1);
    EXPECT_EQ(lw(13), 1);

    macro->init();  // a reload does not repeat run-once scripts
    EXPECT_EQ(lw(11), 1);
    EXPECT_EQ(macro->runLua(99), 0);
}

TEST(MacroScripts, AnHourOfFailingPassesLeavesTheStackAsItWas)
{
    WorkDir work;
    writeScripts(work, {script(1, 3, "error('every pass')"), script(2, 3, "return 1, 2, 3"),
                        script(3, 3, "local t = {} t[nil] = 1")});
    macro->init();
    macro->runLua(1);
    const int height = macro->stackHeight();
    // 72000 passes of 50 ms.
    for (int pass = 0; pass < 72000; ++pass)
        macro->runLua(1 + pass % 3);
    EXPECT_EQ(macro->stackHeight(), height);
    macro->runFromLua(2);
    macro->runFromLua("error('side')");
    EXPECT_EQ(macro->stackHeight(), height);
}

TEST(MacroScripts, CyclicScriptsRunFromTheThreadAtTheirPeriod)
{
    WorkDir work;
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
    LogCapture log;
    macro->init();
    EXPECT_TRUE(log.contains("./iotRunTime/ScriptConfiguration.json No such file"));
    work.write("iotRunTime/ScriptConfiguration.json", "{\"data\": [ {\"id\": 1,");
    macro->init();
    EXPECT_TRUE(log.contains("json parse fail ["));
    EXPECT_TRUE(log.contains("json parse null"));
    EXPECT_EQ(macro->runLua(1), 0);
}

TEST(MacroScripts, OnlineEditsReplaceAppendAndDeleteById)
{
    WorkDir work;
    macro->setConfigFile(R"({"operation_type":"add","data":[{"id":1,"type":3,"flag":1,"text":"a = 1"},
                                                            {"id":2,"type":3,"flag":1,"text":"b = 1"}]})");
    macro->setConfigFile(R"({"operation_type":"modify","data":[{"id":2,"type":3,"flag":1,"text":")" +
                         setLW(30, "5").replace("\"", "\\\"") + R"("},{"id":3,"type":3,"flag":1,"text":"c"}]})");
    macro->setConfigFile(R"({"operation_type":"delete","ids":"1"})");
    macro->setConfigFile("not json");
    macro->init();
    EXPECT_EQ(macro->runLua(1), 0);
    EXPECT_EQ(macro->runLua(2), 1);
    EXPECT_EQ(lw(30), 5);
    EXPECT_EQ(macro->runLua(3), 1);
}

TEST(MacroAddresses, GetdataCallsBecomePolledAddresses)
{
    WorkDir work;
    LogCapture log;
    writeScripts(work, {script(1, 3, R"(local a = getdata("PLC1", "4X", 10, 1, 1, DATA_TYPE_WUB)
local b = getdata( "PLC1" , "4X" , 10 , 1 , 1 , DATA_TYPE_WUB ) -- same key
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
}

TEST(MacroTimers, LimitStopWrapOutputAndScripts)
{
    int argc = 1;
    char name[] = "macro_test";
    char *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    WorkDir work;
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
    QList<int> outputs, wrapped;
    for (int tick = 0; tick < 7; ++tick) {
        t->sysTimerForMacro();
        outputs << lw(40);
        wrapped << int(t->timerValue(1));
    }
    EXPECT_EQ(outputs, (QList<int>{1, 2, 3, 4, 5, 5, 5}));
    EXPECT_EQ(t->timerState(0), 0);
    EXPECT_EQ(lw(50), 1);  // on the tick after the output showed the limit
    EXPECT_EQ(wrapped, (QList<int>{2, 4, 2, 4, 2, 4, 2}));

    t->timerReset(2, 3725);
    EXPECT_EQ(t->timerStr(2, 0), "01:02:05");
    t->timerReset(2, 360000);
    EXPECT_EQ(t->timerStr(2, 0), "100:00:00");
    EXPECT_EQ(t->timerStr(32, 0), "");
    EXPECT_EQ(t->timerState(-1), -1);
    t->timerStop(1);
    EXPECT_FALSE(t->tickerActive());
}
