// The gateway process on its own: start-up, one instance per box, and its links.
#include "fdend.h"
#include "modbusslave.h"
#include "process.h"
#include "ptypair.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

const QByteArray kStdoutConf = "[formats]\ns = \"%V [%F:%L %U] %m%n\"\n[rules]\niot.DEBUG >stdout; s\n";

// A working directory and a box root for one gateway run.
struct Box {
    QTemporaryDir work;
    QTemporaryDir root;
    Box(const QByteArray &zlogConf = kStdoutConf)
    {
        if (!zlogConf.isNull())
            writeFile(work.path() + "/zlog.conf", zlogConf);
        writeFile(root.path() + "/usr/brenta/iot_conf/sn.conf", "SN0001\n");
    }
    void write(const QString &file, const QByteArray &text) const
    {
        writeFile(work.path() + "/iotRunTime/" + file, text);
    }
    bool start(ChildProcess &p)
    {
        p.setEnv("LUMBRA_SYSROOT", root.path());
        return p.start(gatewayBinary(), {}, work.path());
    }
};

QByteArray linkJson(const char *name, const char *type, const char *driver)
{
    return QString(R"({"link_name":"%1","link_type":"%2","link_driver":"%3","baudrate":"115200","data_bit":"8",
        "stop_bit":"1","check_bit":"NONE","plc_id":"1","comm_time":20,"timeout1":200,"retry_times":1})")
        .arg(name, type, driver)
        .toUtf8();
}

}  // namespace

TEST(Startup, StartLineThenServicesAndASecondInstanceExitsBeforeAnyService)
{
    Box box;
    ChildProcess first;
    ASSERT_TRUE(box.start(first));
    ASSERT_TRUE(first.waitForOutput("device sn:SN0001", 5000)) << first.output().toStdString();
    const QString started = first.output();
    EXPECT_TRUE(QRegularExpression("INFO \\[main/main:\\d+ main\\] App 3\\.0\\.0 start 编译日期："
                                   "[A-Z][a-z]{2} [ \\d]\\d \\d{4} \\d\\d:\\d\\d:\\d\\d")
                    .match(started)
                    .hasMatch())
        << started.toStdString();
    EXPECT_LT(started.indexOf("start 编译日期"), started.indexOf("timezone:28800"));
    EXPECT_LT(started.indexOf("timezone:28800"), started.indexOf("device sn:SN0001"));

    ChildProcess second;
    QElapsedTimer t;
    t.start();
    ASSERT_TRUE(box.start(second));
    ASSERT_TRUE(second.waitForExit(1000)) << "second instance still running";
    EXPECT_LT(t.elapsed(), 1000);
    EXPECT_EQ(second.exitCode(), 0);
    QString out = second.output();
    EXPECT_TRUE(out.contains("App exist exit")) << out.toStdString();
    EXPECT_FALSE(out.contains("timezone:"));
    EXPECT_FALSE(out.contains("device sn:"));
    EXPECT_TRUE(first.running());
    EXPECT_EQ(readFile(box.root.path() + "/var/run/lumbra.pid").trimmed().toLongLong(), first.pid());
}

// Counting processes by name let two gateways started in the same instant
// both see two and both leave. Another box (another root) is no rival.
TEST(Startup, OfGatewaysStartedTogetherExactlyOneRunsPerBox)
{
    for (int round = 0; round < 5; ++round) {
        Box box, otherBox;
        ChildProcess a, b, other;
        ASSERT_TRUE(box.start(a) && box.start(b) && otherBox.start(other));
        ASSERT_TRUE(eventually([&] { return a.waitForExit(20) || b.waitForExit(20); }, 5000));
        EXPECT_FALSE(a.waitForExit(300) && b.waitForExit(300)) << "round " << round;
        EXPECT_TRUE(other.running()) << other.output().toStdString();
    }
}

TEST(Startup, TimeZoneFileSetsOffset)
{
    struct Case {
        QByteArray content;
        QString line;
    } cases[] = {{"-18000\n", "timezone:-18000"}, {"not a number\n", "timezone:28800"}};
    for (const Case &c : cases) {
        Box box;
        writeFile(box.work.path() + "/timeZone", c.content);
        ChildProcess gw;
        ASSERT_TRUE(box.start(gw));
        EXPECT_TRUE(gw.waitForOutput(c.line, 5000)) << gw.output().toStdString();
    }
}

TEST(Startup, BadLoggingConfigAndMissingBoxFilesDoNotStopStartUp)
{
    for (QByteArray conf : {QByteArray(), QByteArray("[rules]\niot.LOUD >stdout\n")}) {
        Box box(conf);
        QFile::remove(box.root.path() + "/usr/brenta/iot_conf/sn.conf");
        ChildProcess gw;
        ASSERT_TRUE(box.start(gw));
        EXPECT_TRUE(gw.waitForOutput("device sn:", 5000)) << gw.output().toStdString();
        QString out = gw.output();
        EXPECT_TRUE(out.contains("zlog init failed"));
        EXPECT_TRUE(out.contains("sn.conf fail"));
        EXPECT_TRUE(gw.running());
    }
}

TEST(GatewayLinks, BrokenDriverEndsOnlyItsOwnLink)
{
    Box run;
    ChildProcess gw;
    const QString root = run.root.path();
    PtyPair line(root + "/dev/ttyO1", root + "/slave");
    ASSERT_TRUE(line.ok()) << line.log().toStdString();
    auto slave = ModbusSlave::rtu(line.linkB(), 115200, 1);
    ASSERT_TRUE(slave);
    run.write("driver/libmodbus_rtu.so", readFile(MODBUS_RTU_DRIVER));
    run.write("driver/libbroken.so", "not a library");
    run.write("LinkConfiguration.json",
              "{\"data\":[" + linkJson("PLC1", "COM1", "modbus_rtu") + "," + linkJson("PLC2", "COM2", "broken") + "]}");
    ASSERT_TRUE(run.start(gw));
    EXPECT_TRUE(gw.waitForOutput("driver link exit :PLC2", 5000)) << gw.output().toStdString();
    EXPECT_TRUE(gw.output().contains("driver:" + root + "/usr/brenta/project/driver/libbroken_1.so load failed"));
    EXPECT_TRUE(gw.output().contains("InitLink Ret:0"));
    // The healthy link has nothing registered yet, so its driver only answers for
    // itself; its port is open and its thread alive.
    EXPECT_TRUE(QFile::exists(root + "/usr/brenta/project/driver/libmodbus_rtu_0.so"));
    EXPECT_TRUE(gw.running());
}

TEST(GatewayLinks, MalformedLinkFileLeavesTheGatewayRunning)
{
    Box run;
    ChildProcess gw;
    run.write("LinkConfiguration.json", "{\"data\": [ {\"link_name\": ");
    ASSERT_TRUE(run.start(gw));
    EXPECT_TRUE(gw.waitForOutput("iot link File parsing failed", 5000)) << gw.output().toStdString();
    EXPECT_TRUE(gw.waitForOutput("device sn:", 5000));
    EXPECT_TRUE(gw.running());
}

TEST(GatewayLinks, TcpServerLinkAnswersClientsFromTheRunningGateway)
{
    Box run;
    ChildProcess gw;
    int port = freeTcpPort();
    run.write("driver/libscripted.so", readFile(SCRIPTED_DRIVER));
    run.write("LinkConfiguration.json",
              QString(R"({"data":[{"link_name":"SRV","link_type":"Ethernet/TCP","master_or_slave":1,
                  "hmi_ip":"127.0.0.1","hmi_port":"%1","link_driver":"scripted","driver_property":"results=6"}]})")
                  .arg(port)
                  .toUtf8());
    ASSERT_TRUE(run.start(gw));
    ASSERT_TRUE(gw.waitForOutput("tcp server listening on 127.0.0.1:", 5000)) << gw.output().toStdString();
    FdEnd client = tcpConnect(port);
    ASSERT_TRUE(client.ok());
    ASSERT_TRUE(client.write("Q"));
    EXPECT_EQ(client.read(4, 3000), "RSP0");
    EXPECT_TRUE(gw.running());
}
