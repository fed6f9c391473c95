#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/zlogconf.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace lumbra::test;
using namespace lumbra::zlogconf;

TEST(ZlogConf, ReadsFormatsRulesAndRotation)
{
    Config c;
    std::string err;
    ASSERT_TRUE(parse("# c\n[global]\nstrict init = true\n[formats]\nsimple = \"%m%n\"\n"
                      "[rules]\niot.INFO >stdout; simple\n*.=ERROR >stderr\n"
                      "iot.!DEBUG \"a.log\", 10MB * 3 ~ \"a.#r.log\"; simple\n"
                      "iot.* \"b.log\", 1k\niot.INFO >syslog\n",
                      c, err))
        << err;
    ASSERT_EQ(c.rules.size(), 4u);
    EXPECT_EQ(c.formats.at("simple"), "%m%n");
    EXPECT_EQ(c.rules[0].output, Output::Stdout);
    EXPECT_EQ(c.rules[1].category, "*");
    EXPECT_TRUE(c.rules[1].accepts("iot", 100));
    EXPECT_FALSE(c.rules[1].accepts("iot", 120));
    EXPECT_EQ(c.rules[2].maxSize, 10u * 1024 * 1024);
    EXPECT_EQ(c.rules[2].maxFiles, 3);
    EXPECT_EQ(c.rules[2].archivePattern, "a.#r.log");
    EXPECT_FALSE(c.rules[2].accepts("iot", 20));
    EXPECT_TRUE(c.rules[2].accepts("iot", 40));
    EXPECT_EQ(c.rules[3].maxSize, 1000u);
    EXPECT_EQ(c.rules[3].archivePattern, "b.log.#r");
    EXPECT_TRUE(c.rules[3].accepts("iot", 20));
    EXPECT_FALSE(c.rules[0].accepts("other", 100));
    EXPECT_EQ(c.warnings.size(), 2u);  // [global] line and >syslog
}

TEST(ZlogConf, RejectsGarbledFiles)
{
    const std::string bad[] = {
        "garbage before any section\n",
        "[rules]\niot.LOUD >stdout\n",
        "[rules]\niot >stdout\n",
        "[rules]\niot.INFO \"unterminated\n",
        "[rules]\niot.INFO \"f.log\", lots\n",
        "[rules]\niot.INFO >stdout; nosuchformat\n",
        "[rules]\niot.INFO somewhere\n",
        "[formats]\nbad pattern without equals\n",
        "[rules\n",
        std::string("[rules]\niot.INFO >stdout\n\x01\x02\0\x03", 30),
    };
    for (const std::string &text : bad) {
        Config c;
        std::string err;
        EXPECT_FALSE(parse(text, c, err)) << text;
        EXPECT_FALSE(err.empty()) << text;
    }
}

TEST(Zlog, LinesCarrySourceLineFunctionAndExactPrintfText)
{
    LogCapture log;
    zlog_info(g_zlog, "App %s start %d%% %5.2f", "3.0.0", 42, 3.14159);
    zlog_debug(g_zlog, "debug line");
    QString line = log.text().section('\n', 0, 0);
    EXPECT_TRUE(line.startsWith("INFO ") && line.contains("tests/unit/zlog_test:")) << line.toStdString();
    EXPECT_TRUE(line.contains(QString(":%1 ").arg(__LINE__ - 4))) << line.toStdString();
    EXPECT_TRUE(line.contains("TestBody| App 3.0.0 start 42%  3.14")) << line.toStdString();
    EXPECT_TRUE(log.contains("DEBUG "));
    unitTool::ReadFile("/nonexistent/file", 0);  // a source below src/ is named from there
    EXPECT_TRUE(log.contains("INFO generalFunc/generalFunc:")) << log.text().toStdString();
}

TEST(Zlog, TimeConversionsInsideAndOutsideTheDate)
{
    WorkDir dir;
    dir.write("zlog.conf", "[formats]\nf = \"%d(%Y|%ms).%ms.%us %m%n\"\n[rules]\niot.INFO \"t.log\"; f\n");
    ASSERT_EQ(unitTool::my_zlog_init(), 0);
    zlog_info(g_zlog, "msg");
    QRegularExpression re("^20\\d\\d\\|\\d{3}\\.\\d{3}\\.\\d{6} msg\n$");
    QString text = QString::fromUtf8(readFile(dir.file("t.log")));
    EXPECT_TRUE(re.match(text).hasMatch()) << text.toStdString();
}

TEST(Zlog, LongMessagesAreNotCut)
{
    LogCapture log;
    std::string big(5000, 'x');
    zlog_info(g_zlog, "%s|end", big.c_str());
    EXPECT_TRUE(log.contains(QString::fromStdString(big) + "|end"));
}

TEST(Zlog, LevelsFilterAndFormatsApply)
{
    WorkDir dir;
    dir.write("zlog.conf", "[formats]\nf = \"[%-6V] %c %m%n\"\n"
                           "[rules]\niot.=ERROR \"err.log\"; f\niot.INFO \"info.log\"; f\n");
    ASSERT_EQ(unitTool::my_zlog_init(), 0);
    zlog_debug(g_zlog, "d");
    zlog_info(g_zlog, "i");
    zlog_error(g_zlog, "e");
    EXPECT_EQ(readFile(dir.file("err.log")), "[ERROR ] iot e\n");
    EXPECT_EQ(readFile(dir.file("info.log")), "[INFO  ] iot i\n[ERROR ] iot e\n");
    EXPECT_FALSE(zlog_level_enabled(g_zlog, ZLOG_LEVEL_DEBUG));
}

TEST(Zlog, SizeRotationKeepsTheConfiguredArchives)
{
    WorkDir dir;
    dir.write("zlog.conf", "[formats]\nm = \"%m%n\"\n"
                           "[rules]\niot.INFO \"log/iot.log\", 1KB * 2 ~ \"log/iot.#r.log\"; m\n");
    ASSERT_EQ(unitTool::my_zlog_init(), 0);
    std::string line(99, 'a');  // 100 bytes a line with the newline
    for (int i = 0; i < 45; ++i)
        zlog_info(g_zlog, "%s", line.c_str());
    QStringList files = QDir(dir.file("log")).entryList(QDir::Files, QDir::Name);
    EXPECT_EQ(files, QStringList({"iot.0.log", "iot.1.log", "iot.log"}));
    EXPECT_EQ(readFile(dir.file("log/iot.0.log")).size(), 1000);
    EXPECT_EQ(readFile(dir.file("log/iot.log")).size(), 500);
    for (const QString &f : files)
        EXPECT_LE(readFile(dir.file("log/" + f)).size(), 1024);
}

// A box's log files are read by whoever gets a shell on it: owner only, and
// no password in them, whatever a caller hands to the log.
TEST(Zlog, FilesAreOwnerOnlyAndCarryNoPasswords)
{
    WorkDir dir;
    dir.write("old.log", "from an earlier version\n");
    QFile(dir.file("old.log")).setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                               QFileDevice::ReadOther);
    dir.write("zlog.conf", "[formats]\nm = \"%m%n\"\n[rules]\niot.DEBUG \"old.log\"; m\n"
                           "iot.DEBUG \"log/r.log\", 1KB * 2; m\n");
    ASSERT_EQ(unitTool::my_zlog_init(), 0);
    zlog_debug(g_zlog, "Received : %s", R"({"topic":"/DevRecv/SoftwareOperation","msg":"{\"pwd\":\"s3cr:et\"}"})");
    for (int i = 0; i < 60; ++i)  // through a rotation
        zlog_info(g_zlog, "line %d pass_word=hunter2", i);
    for (const QString &name : {QString("old.log"), QString("log/r.log"), QString("log/r.log.0")}) {
        const QFile::Permissions others = QFileDevice::ReadGroup | QFileDevice::ReadOther | QFileDevice::WriteGroup |
                                          QFileDevice::WriteOther;
        EXPECT_EQ(QFile(dir.file(name)).permissions() & others, 0) << name.toStdString();
        const QByteArray text = readFile(dir.file(name));
        EXPECT_FALSE(text.contains("s3cr") || text.contains("hunter2")) << text.toStdString();
        EXPECT_TRUE(text.contains("***")) << name.toStdString();
    }
}

TEST(Zlog, MissingOrGarbledConfigFallsBackToStdout)
{
    for (const char *conf : {static_cast<const char *>(nullptr), "[rules]\niot.NOPE >stdout\n"}) {
        WorkDir dir;
        if (conf)
            dir.write("zlog.conf", conf);
        testing::internal::CaptureStdout();
        EXPECT_EQ(unitTool::my_zlog_init(), -1);
        ASSERT_NE(g_zlog, nullptr);
        zlog_info(g_zlog, "still logging");
        zlog_debug(g_zlog, "quiet");
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("zlog init failed\n"), std::string::npos);
        EXPECT_NE(out.find("still logging"), std::string::npos);
        EXPECT_EQ(out.find("quiet"), std::string::npos);
    }
}

TEST(Zlog, UnwritableFileFailsInitInsteadOfThrowing)
{
    WorkDir dir;
    dir.write("blocker", "x");  // a file where a folder should be
    dir.write("zlog.conf", "[rules]\niot.INFO \"blocker/iot.log\"\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(unitTool::my_zlog_init(), -1);
    zlog_info(g_zlog, "after");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("after"), std::string::npos);
}

TEST(Zlog, NoCategoryBeforeInit)
{
    EXPECT_EQ(zlog_get_category("iot"), nullptr);
    zlog_info(nullptr, "must not crash");
}
