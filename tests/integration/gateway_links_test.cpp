// The gateway process with real links: a Modbus RTU slave on a pty, and a link
// whose driver file is broken.
#include "fdend.h"
#include "modbusslave.h"
#include "process.h"
#include "ptypair.h"
#include "testsupport.h"

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

const QByteArray kConf = "[formats]\ns = \"%V [%F:%L] %m%n\"\n[rules]\niot.INFO >stdout; s\n";

QByteArray linkJson(const char *name, const char *type, const char *driver)
{
    return QString(R"({"link_name":"%1","link_type":"%2","link_driver":"%3","baudrate":"115200","data_bit":"8",
        "stop_bit":"1","check_bit":"NONE","plc_id":"1","comm_time":20,"timeout1":200,"retry_times":1})")
        .arg(name, type, driver)
        .toUtf8();
}

// A gateway process on its own working directory and box root.
struct GatewayRun {
    QTemporaryDir work, root;
    ChildProcess gw;
    GatewayRun() { writeFile(work.path() + "/zlog.conf", kConf); }
    void write(const QString &file, const QByteArray &text) { writeFile(work.path() + "/iotRunTime/" + file, text); }
    bool start()
    {
        gw.setEnv("LUMBRA_SYSROOT", root.path());
        return gw.start(gatewayBinary(), {}, work.path());
    }
};

}  // namespace

TEST(GatewayLinks, BrokenDriverEndsOnlyItsOwnLink)
{
    GatewayRun run;
    ChildProcess &gw = run.gw;
    const QString root = run.root.path();
    PtyPair line(root + "/dev/ttyO1", root + "/slave");
    ASSERT_TRUE(line.ok()) << line.log().toStdString();
    auto slave = ModbusSlave::rtu(line.linkB(), 115200, 1);
    ASSERT_TRUE(slave);
    run.write("driver/libmodbus_rtu.so", readFile(MODBUS_RTU_DRIVER));
    run.write("driver/libbroken.so", "not a library");
    run.write("LinkConfiguration.json",
              "{\"data\":[" + linkJson("PLC1", "COM1", "modbus_rtu") + "," + linkJson("PLC2", "COM2", "broken") + "]}");
    ASSERT_TRUE(run.start());
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
    GatewayRun run;
    ChildProcess &gw = run.gw;
    run.write("LinkConfiguration.json", "{\"data\": [ {\"link_name\": ");
    ASSERT_TRUE(run.start());
    EXPECT_TRUE(gw.waitForOutput("iot link File parsing failed", 5000)) << gw.output().toStdString();
    EXPECT_TRUE(gw.waitForOutput("device sn:", 5000));
    EXPECT_TRUE(gw.running());
}

TEST(GatewayLinks, TcpServerLinkAnswersClientsFromTheRunningGateway)
{
    GatewayRun run;
    ChildProcess &gw = run.gw;
    int port = freeTcpPort();
    run.write("driver/libscripted.so", readFile(SCRIPTED_DRIVER));
    run.write("LinkConfiguration.json",
              QString(R"({"data":[{"link_name":"SRV","link_type":"Ethernet/TCP","master_or_slave":1,
                  "hmi_ip":"127.0.0.1","hmi_port":"%1","link_driver":"scripted","driver_property":"results=6"}]})")
                  .arg(port)
                  .toUtf8());
    ASSERT_TRUE(run.start());
    ASSERT_TRUE(gw.waitForOutput("tcp server listening on 127.0.0.1:", 5000)) << gw.output().toStdString();
    FdEnd client = tcpConnect(port);
    ASSERT_TRUE(client.ok());
    ASSERT_TRUE(client.write("Q"));
    EXPECT_EQ(client.read(4, 3000), "RSP0");
    EXPECT_TRUE(gw.running());
}
