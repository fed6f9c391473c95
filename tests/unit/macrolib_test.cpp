// The script function library, driven from Lua as scripts use it: values on
// the gateway's own registers, text and check helpers, raw bytes on a free
// TCP link to a loopback peer.
#include "Macro/macrolib.h"
#include "device_comm/communication.h"
#include "fdend.h"
#include "testsupport.h"

extern "C" {
#include <lauxlib.h>
#include <lualib.h>
}

#include <QCoreApplication>

#include <gtest/gtest.h>
#include <memory>

using namespace lumbra::test;

namespace {

class MacroLibTest : public ::testing::Test {
protected:
    MacroLibTest()
    {
        luaL_openlibs(m_L.get());
        lumbra::registerMacroGlobals(m_L.get());
    }

    // Runs a chunk; a Lua error fails the test with its message.
    void run(const std::string &chunk)
    {
        if (luaL_dostring(m_L.get(), chunk.c_str()) != 0) {
            ADD_FAILURE() << chunk << ": " << lua_tostring(m_L.get(), -1);
            lua_pop(m_L.get(), 1);
        }
    }

    double number(const std::string &expr)
    {
        run("result = " + expr);
        lua_getglobal(m_L.get(), "result");
        const double v = lua_tonumber(m_L.get(), -1);
        lua_pop(m_L.get(), 1);
        return v;
    }

    std::string text(const std::string &expr)
    {
        run("result = " + expr);
        lua_getglobal(m_L.get(), "result");
        size_t len = 0;
        const char *s = lua_tolstring(m_L.get(), -1, &len);
        std::string out = s ? std::string(s, len) : "<not a string>";
        lua_pop(m_L.get(), 1);
        return out;
    }

    int m_argc = 0;
    QCoreApplication m_app{m_argc, nullptr};  // the script services own timers
    WorkDir m_dir;
    std::unique_ptr<lua_State, decltype(&lua_close)> m_L{luaL_newstate(), &lua_close};
};

TEST_F(MacroLibTest, ValuesComeBackAsTheirTypeReadsThem)
{
    struct Case {
        const char *reg;
        const char *writeType;
        const char *value;
        const char *readType;
        double expected;
    } cases[] = {
        {"LB", "DATA_TYPE_BIT", "7", "DATA_TYPE_BIT", 1},
        {"LW", "DATA_TYPE_BB", "-5", "DATA_TYPE_BB", -5},
        {"LW", "DATA_TYPE_BUB", "200", "DATA_TYPE_BUB", 200},
        {"LW", "DATA_TYPE_BD", "45", "DATA_TYPE_BUB", 0x45},
        {"LW", "DATA_TYPE_WB", "-2.9", "DATA_TYPE_WB", -2},
        {"LW", "DATA_TYPE_WB", "70000", "DATA_TYPE_WB", 70000 - 65536},
        {"LW", "DATA_TYPE_WUB", "-1", "DATA_TYPE_WUB", 0xFFFF},
        {"LW", "DATA_TYPE_WD", "1234", "DATA_TYPE_WUB", 0x1234},
        {"LW", "DATA_TYPE_WUB", "0x12AB", "DATA_TYPE_WD", 0},
        {"LW", "DATA_TYPE_DB", "-100000", "DATA_TYPE_DB", -100000},
        {"LW", "DATA_TYPE_DUB", "4000000000", "DATA_TYPE_DUB", 4000000000.0},
        {"LW", "DATA_TYPE_DD", "12345678", "DATA_TYPE_DD", 12345678},
        {"LW", "DATA_TYPE_DD", "12345678", "DATA_TYPE_DUB", 0x12345678},
        {"LW", "DATA_TYPE_DF", "-1.5", "DATA_TYPE_DF", -1.5},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.writeType) + " " + c.value + " as " + c.readType);
        run(std::string("setdata('any', '") + c.reg + "', 10, " + c.value + ", 0, nil, " + c.writeType + ")");
        EXPECT_EQ(number(std::string("getdata('any', '") + c.reg + "', '10', 0, 1, ' " + c.readType + " ')"),
                  c.expected);
    }
}

TEST_F(MacroLibTest, ArraysAndStringsTravelInOneWrite)
{
    run("setdata('any', 'LW', 100, 0, 0, {1, -2, 3}, DATA_TYPE_WB)");
    run("t = {0, 0, 0, 9}; n = getdata('any', 'LW', 100, 0, t, DATA_TYPE_WB)");
    EXPECT_EQ(number("n"), 4);
    EXPECT_EQ(text("table.concat(t, ',')"), "1,-2,3,0");

    // Bytes pack two to a word, the first in the low byte.
    run("setdata(0, 'LW', 110, 0, 0, {0x12, 0x34, 0x56}, DATA_TYPE_BUB)");
    EXPECT_EQ(number("getdata(0, 'LW', 110, 0, 1, DATA_TYPE_WUB)"), 0x3412);
    EXPECT_EQ(number("getdata(0, 'LW', 111, 0, 1, DATA_TYPE_WUB)"), 0x0056);

    run("setdata('any', 'LW', 120, 0, 0, 'abc', DATA_TYPE_STR_ASC)");
    EXPECT_EQ(text("getdata('any', 'LW', 120, 0, 8, DATA_TYPE_STR_ASC)"), "abc");
    EXPECT_EQ(text("getdata('any', 'LW', 120, 0, 2, DATA_TYPE_STR_ASC)"), "ab");
    // No value is never a number: nil and the reason.
    EXPECT_EQ(text("select(2, getdata('any', 'LW', 'x', 0, 1, DATA_TYPE_WB))"), "no such address");
    EXPECT_EQ(text("select(2, getdata('any', 'LW', 1, 0, 1, 'DATA_TYPE_QQ'))"), "unknown data type");
    EXPECT_EQ(text("tostring(getdata('any', 'LW', 1, 0, 1, 'DATA_TYPE_QQ'))"), "nil");
    EXPECT_EQ(text("tostring(setdata('any', 'LW', 130, 5, 0, nil, DATA_TYPE_WB))"), "true");
    EXPECT_EQ(text("select(2, setdata('any', 'LW', 'x', 5, 0, nil, DATA_TYPE_WB))"), "no such address");
}

TEST_F(MacroLibTest, MalformedArgumentsNeverRaise)
{
    for (const char *chunk :
         {"setdata()", "getdata()", "getdata({}, nil)", "setdata('a', 'LW', 1, 1, 0, {'x', {}}, DATA_TYPE_WB)",
          "setdata('a', 'LW', 1, {}, 0, 5, DATA_TYPE_STR_UNI)", "HIBYTE('x')", "LOBYTE(0/0)", "gbk2utf(5)",
          "utf2gbk({}, -3)", "checkMethod(nil)", "hmiPrint({})", "hmiPrint(nil)", "switchScreen(1, 'a', {})",
          "mouseClickAbs()", "getSystemParameter(nil, nil)", "readdevice()", "recvData('x', {})", "sendData()",
          "writedevice(nil, nil)", "timerWaitFor(-5)", "timerRun('x')", "suspendlink()", "startlink(nil, 2)",
          "closeCommunication({})", "resetCommunication()", "runScriptFromId('x')", "runScriptText(1)"})
        run(chunk);
}

TEST_F(MacroLibTest, HelpersGiveTheirCheckValues)
{
    run("digits = {0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39}");
    struct Case {
        const char *expr;
        double expected;
    } cases[] = {
        {"HIBYTE(0x1234)", 0x12},
        {"LOBYTE(0x1234)", 0x34},
        {"HIBYTE(-1)", 255},
        {"getLinkNum(5)", -1},
        {"checkMethod(digits, 9, 'sum')", 0xDD},
        {"checkMethod(digits, 2, 'SUM')", 0x63},
        {"checkMethod(digits, 99, 'sum16')", 477},
        {"checkMethod({3, 5}, 2, 'xor')", 6},
        {"checkMethod(digits, 9, 'lrc')", 0x23},
        {"checkMethod(digits, 9, 'crc16')", 0x4B37},
        {"checkMethod(digits, 9, 'modbus')", 0x4B37},
        {"checkMethod(digits, 9, 'crc16ccitt')", 0x29B1},
        {"checkMethod(digits, 9, 'md5')", -1},
        {"writedevice(0, '123', 3, 10, 'hex')", -1},
        {"initCommunication('serial,ttyO1')", -1},
    };
    for (const Case &c : cases)
        EXPECT_EQ(number(c.expr), c.expected) << c.expr;
}

TEST_F(MacroLibTest, GbkAndUtf8ConvertInPlaceWithTheirOwnLengths)
{
    run("t = {0xD6, 0xD0}; n = gbk2utf(t, 2)");
    EXPECT_EQ(number("n"), 2);
    EXPECT_EQ(text("table.concat(t, ',')"), "228,184,173");
    EXPECT_EQ(number("utf2gbk(t, 3)"), 2);
    EXPECT_EQ(text("table.concat(t, ',')"), "214,208,173");

    run("u = {0xD6, 0xD0}");
    EXPECT_EQ(number("gbk2utf(u, 1024)"), 1024);
    EXPECT_EQ(text("table.concat(u, ',')"), "214,208");
}

TEST_F(MacroLibTest, FreeTcpLinkMovesRawBytesBothWays)
{
    TcpListener server;
    ASSERT_GT(server.port(), 0);
    const int id = static_cast<int>(number("initCommunication(' TCP, 127.0.0.1, " + std::to_string(server.port()) + "')"));
    ASSERT_GE(id, 0);
    FdEnd peer = server.accept(2000);
    ASSERT_TRUE(peer.ok());
    const std::string link = std::to_string(id);

    EXPECT_EQ(number("writedevice(" + link + ", '41 42 0d', 0, 100, 'hex')"), 3);
    EXPECT_EQ(peer.read(3, 2000), QByteArray("AB\r"));
    EXPECT_EQ(number("sendData(" + link + ", {1, 2, 3}, 2)"), 2);
    EXPECT_EQ(peer.read(2, 2000), QByteArray("\x01\x02"));

    ASSERT_TRUE(peer.write("xyz"));
    EXPECT_EQ(text("readdevice(" + link + ", 2, 2000)"), "xy");
    run("d = {}");
    EXPECT_EQ(number("readdevice(" + link + ", 10, 2000, d)"), 1);
    EXPECT_EQ(number("d[1]"), 'z');
    ASSERT_TRUE(peer.write("\x05\x06"));
    run("r = {}");
    EXPECT_EQ(number("recvData(" + link + ", r, 10, 2000)"), 2);
    EXPECT_EQ(text("table.concat(r, ',')"), "5,6");
    communication::getInstance()->stopLinks();
}

}  // namespace
