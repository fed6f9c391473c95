#include "generalFunc/generalFunc.h"
#include "generalFunc/secrets.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>

#include <cstring>
#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

template <typename T>
QString fmt(T v, int type, int decimal)
{
    uint8_t buf[sizeof(T)];
    std::memcpy(buf, &v, sizeof v);
    return unitTool::value2str(buf, sizeof buf, type, decimal);
}

}  // namespace

TEST(Value2Str, FormatsEveryTypeCode)
{
    EXPECT_EQ(fmt<uint8_t>(0, VALUE_BIT, 0), "0");
    EXPECT_EQ(fmt<uint8_t>(7, VALUE_BIT, 0), "1");
    EXPECT_EQ(fmt<uint16_t>(65535, VALUE_U16, 0), "65535");
    EXPECT_EQ(fmt<uint16_t>(1234, VALUE_U16, 2), "12.34");
    EXPECT_EQ(fmt<uint32_t>(4000000000u, VALUE_U32, 0), "4000000000");
    EXPECT_EQ(fmt<int16_t>(-5, VALUE_S16, 0), "-5");
    EXPECT_EQ(fmt<int16_t>(-1234, VALUE_S16, 1), "-123.4");
    EXPECT_EQ(fmt<int32_t>(-2000000000, VALUE_S32, 0), "-2000000000");
    EXPECT_EQ(fmt<int32_t>(5, VALUE_S32, 3), "0.005");
    EXPECT_EQ(fmt<uint32_t>(0x1234, VALUE_BCD16, 0), "1234");
    EXPECT_EQ(fmt<uint32_t>(0x12AB, VALUE_BCD32, 0), "0");
    EXPECT_EQ(fmt<uint32_t>(0x20240301, VALUE_BCD32, 0), "20240301");
    EXPECT_EQ(fmt<float>(1.5f, VALUE_FLOAT, 2), "1.50");  // floats are never divided
    EXPECT_EQ(fmt<float>(-0.26f, VALUE_FLOAT, 1), "-0.3");
}

TEST(Value2Str, StringsStopAtZeroAndAtLength)
{
    const char text[] = "温度\0tail";
    EXPECT_EQ(unitTool::value2str(reinterpret_cast<const uint8_t *>(text), sizeof text, VALUE_STRING, 0),
              QString::fromUtf8("温度"));
    const uint8_t unterminated[] = {'a', 'b', 'c'};
    EXPECT_EQ(unitTool::value2str(unterminated, 2, VALUE_STRING, 0), "ab");
}

TEST(Value2Str, ShortOrMissingBuffersAndUnknownCodesGiveEmptyText)
{
    const uint8_t one[1] = {1};
    EXPECT_EQ(unitTool::value2str(one, 1, VALUE_U16, 0), "");
    EXPECT_EQ(unitTool::value2str(one, 1, VALUE_FLOAT, 2), "");
    EXPECT_EQ(unitTool::value2str(nullptr, 4, VALUE_U32, 0), "");
    EXPECT_EQ(unitTool::value2str(one, 1, 8, 0), "");
    EXPECT_EQ(unitTool::value2str(one, 1, -2, 0), "");
}

TEST(Value2Str, ReadsUnalignedBuffers)
{
    uint8_t buf[8] = {0};
    uint32_t v = 123456;
    std::memcpy(buf + 1, &v, sizeof v);
    EXPECT_EQ(unitTool::value2str(buf + 1, 4, VALUE_U32, 0), "123456");
}

TEST(SetZoom, ScalesThenDividesOnlyIntegerAndBcdCodes)
{
    EXPECT_DOUBLE_EQ(unitTool::setZoom(5, 1, VALUE_FLOAT, 0, 0, false), 5);
    EXPECT_DOUBLE_EQ(unitTool::setZoom(5, 1, VALUE_S32, 0, 0, false), 0.5);
    EXPECT_DOUBLE_EQ(unitTool::setZoom(5, 1, VALUE_BIT, 0, 0, false), 5);  // -1 is huge unsigned
    EXPECT_DOUBLE_EQ(unitTool::setZoom(5, 1, VALUE_BCD32, 0, 0, false), 0.5);
    EXPECT_DOUBLE_EQ(unitTool::setZoom(10, 0, VALUE_U16, 2, 3, true), 23);
    EXPECT_DOUBLE_EQ(unitTool::setZoom(10, 2, VALUE_U16, 2, 3, true), 0.23);
    EXPECT_DOUBLE_EQ(unitTool::setZoom(10, 2, VALUE_U16, 2, 3, false), 0.1);
}

TEST(ExecuteCommand, CapturesOutputAndReturnsExitStatus)
{
    LogCapture log;
    char out[64];
    EXPECT_EQ(unitTool::execute_command("printf 'a\\nb\\n'", out, sizeof out), 0);
    EXPECT_STREQ(out, "a\nb\n");
    EXPECT_EQ(unitTool::execute_command("exit 3", nullptr, 0), 3);
    EXPECT_TRUE(log.contains("Unable to execute command:exit 3 cmdResult:3"));
    EXPECT_EQ(unitTool::execute_command("kill -9 $$", nullptr, 0), -1);
}

TEST(ExecuteCommand, OverflowKeepsWholeLinesThatFitAndStillReturnsStatus)
{
    LogCapture log;
    char out[16];
    int rc = unitTool::execute_command("printf '12345\\n12345\\n12345\\n'; exit 4", out, sizeof out);
    EXPECT_EQ(rc, 4);
    EXPECT_STREQ(out, "12345\n12345\n");
    EXPECT_TRUE(log.contains("Output exceeds buffer size"));
}

TEST(ExecuteSystemCommand, ReturnsStatusAndLogsSignals)
{
    LogCapture log;
    EXPECT_EQ(unitTool::execute_system_command("true"), 0);
    EXPECT_EQ(unitTool::execute_system_command("exit 7"), 7);
    EXPECT_EQ(unitTool::execute_system_command("kill -9 $$"), -1);
    EXPECT_TRUE(log.contains("Unable to execute command:kill -9 $$"));
}

TEST(Files, ReadFileByLineAndWhole)
{
    LogCapture log;
    WorkDir dir;
    dir.write("f.txt", "  first \nsecond\n\nfourth  \n");
    EXPECT_EQ(unitTool::ReadFile(dir.file("f.txt"), 1), "first");
    EXPECT_EQ(unitTool::ReadFile(dir.file("f.txt"), 4), "fourth");
    EXPECT_EQ(unitTool::ReadFile(dir.file("f.txt"), 9), "");
    EXPECT_EQ(unitTool::ReadFile(dir.file("f.txt"), 0), "first \nsecond\n\nfourth");
    EXPECT_EQ(unitTool::ReadFile(dir.file("none"), 1), "");
    EXPECT_TRUE(log.contains("read " + dir.file("none") + " fail"));
}

TEST(Files, IniValuesAreTextEvenWithCommas)
{
    WorkDir dir;
    dir.write("a.ini", "version=3.1.2\nlist=a,b\n[grp]\nkey=5\n");
    EXPECT_EQ(unitTool::GetIniValue("version", dir.file("a.ini")).toString(), "3.1.2");
    EXPECT_EQ(unitTool::GetIniValue("list", dir.file("a.ini")).toString(), "a,b");
    EXPECT_EQ(unitTool::GetIniValue("grp/key", dir.file("a.ini")).toInt(), 5);
    EXPECT_FALSE(unitTool::GetIniValue("missing", dir.file("a.ini")).isValid());
    EXPECT_FALSE(unitTool::GetIniValue("version", dir.file("nofile.ini")).isValid());
}

TEST(Files, DeleteFilesInDirExceptKeepsNamedFilesAndFolders)
{
    WorkDir dir;
    for (const char *n : {"keep.so", "Keep.so", "drop.so", ".hidden", "sub/inner"})
        dir.write(n, "x");
    unitTool::deleteFilesInDirExcept(dir.path(), {"keep.so"});
    EXPECT_TRUE(QFile::exists(dir.file("keep.so")));
    EXPECT_FALSE(QFile::exists(dir.file("Keep.so")));
    EXPECT_FALSE(QFile::exists(dir.file("drop.so")));
    EXPECT_FALSE(QFile::exists(dir.file(".hidden")));
    EXPECT_TRUE(QFile::exists(dir.file("sub/inner")));
}

TEST(Files, Md5SumOfFilesIncludingAwkwardNames)
{
    LogCapture log;
    WorkDir dir;
    dir.write("a.bin", "hello\n");
    dir.write("with space's.bin", "hello\n");
    EXPECT_EQ(unitTool::culMd5Sum(dir.file("a.bin")), "b1946ac92492d2347c6235b4d2611184");
    EXPECT_EQ(unitTool::culMd5Sum(dir.file("with space's.bin")), "b1946ac92492d2347c6235b4d2611184");
    EXPECT_EQ(unitTool::culMd5Sum(dir.file("missing.bin")), "");
    EXPECT_TRUE(log.contains("md5 file " + dir.file("missing.bin") + " no exist"));
}

TEST(TimeZone, ReadsOffsetOrFallsBack)
{
    struct Case {
        const char *content;  // nullptr: no file
        int expected;
    } cases[] = {{"-18000\n", -18000}, {"3600", 3600}, {"abc", 28800}, {"12x", 28800}, {"", 28800},
                 {nullptr, 28800}};
    LogCapture log;
    for (const Case &c : cases) {
        WorkDir dir;
        if (c.content)
            dir.write("timeZone", c.content);
        EXPECT_EQ(unitTool::cultimezone(), c.expected) << (c.content ? c.content : "(none)");
        EXPECT_TRUE(log.contains(QString("timezone:%1").arg(c.expected)));
    }
}

// Each line is what reaches a log: the secret must go, everything else stay.
TEST(Secrets, ValuesOfSecretKeysAreMaskedWhereverTheyAppear)
{
    struct Case {
        const char *in, *out;
    } cases[] = {
        {R"({"ip":"10.0.0.1","user":"ftp","pwd":"s3cr\"et","port":21})",
         R"({"ip":"10.0.0.1","user":"ftp","pwd":"***","port":21})"},
        {R"({"topic":"/DevRecv/OnlineServerSet","msg":"{\"user_name\":\"u\",\"pass_word\":\"hunter2\",\"port\":1883}"})",
         R"({"topic":"/DevRecv/OnlineServerSet","msg":"{\"user_name\":\"u\",\"pass_word\":\"***\",\"port\":1883}"})"},
        {R"({"Password": 12345, "keyfile":"/etc/k.pem"})", R"({"Password": "***", "keyfile":"/etc/k.pem"})"},
        {"password=hunter2", "password=***"},
        {"bad line in [broker]: pass_word = hunter2 ;x", "bad line in [broker]: pass_word = *** ;x"},
        {R"({"api_token":"abc","note":"no password here"})", R"({"api_token":"***","note":"no password here"})"},
        {"nothing to hide: port=1883", "nothing to hide: port=1883"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(lumbra::maskSecrets(QString::fromUtf8(c.in)).toStdString(), c.out) << c.in;
    EXPECT_TRUE(lumbra::isSecretKey("pass_word"));
    EXPECT_FALSE(lumbra::isSecretKey("keepalive"));
}
