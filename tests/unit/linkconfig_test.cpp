#include "device_comm/communication.h"
#include "device_comm/linkconfig.h"
#include "device_comm/src/ulinkthread.h"
#include "testsupport.h"

#include <QFile>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

const QByteArray kTwoLinks = R"({"data":[
 {"link_name":"PLC1","link_type":"COM3","link_device":"dev","link_driver":"modbus_rtu","hmi_position":2,
  "driver_lib":"lib","remote_property":"rp","hmi_ip":"","hmi_port":"","master_or_slave":0,"baudrate":"115200",
  "data_bit":"8","check_bit":"EVEN","stop_bit":"1","screen_id":"3","plc_id":"7","serial_comm_protocol":485,
  "comm_time":20,"timeout1":300,"timeout2":50,"retry_times":2,"address_mode":1,"address_step":2,
  "data_conver":3,"station_data_conver":"1:2","station_no_comm":"4, 9","driver_property":"word_order=low_first"},
 {"link_name":"PLC2","link_type":"Ethernet/TCP","link_driver":"modbus_rtu","hmi_ip":"127.0.0.1",
  "hmi_port":"70000","plc_id":"x"}
]})";

}  // namespace

TEST(LinkConfig, ReadsEveryFieldAndDefaultsMissingOnes)
{
    LogCapture log;
    WorkDir dir;
    BoxRoot box;
    dir.write("iotRunTime/LinkConfiguration.json", kTwoLinks);
    QList<LinkValue> links;
    lumbra::readLinkValues(links);
    ASSERT_EQ(links.size(), 2);
    const LinkValue &a = links[0];
    EXPECT_EQ(a.id, 0);
    EXPECT_EQ(a.linkName, "PLC1");
    EXPECT_EQ(a.linkType, "COM3");
    EXPECT_EQ(a.hmi_position, 2);
    EXPECT_EQ(a.baudrate, 115200u);
    EXPECT_EQ(a.data_bit, 8u);
    EXPECT_EQ(a.check_bit, "EVEN");
    EXPECT_EQ(a.stop_bit, 1);
    EXPECT_EQ(a.screen_id, 3);
    EXPECT_EQ(a.plc_id, 7);
    EXPECT_EQ(a.serial_comm_protocol, 485);
    EXPECT_EQ(a.comm_time, 20);
    EXPECT_EQ(a.timeout1, 300);
    EXPECT_EQ(a.retry_times, 2);
    EXPECT_EQ(a.data_conver, 3);
    EXPECT_EQ(a.station_data_conver, "1:2");
    EXPECT_EQ(a.driver_property, "word_order=low_first");
    const LinkValue &b = links[1];
    EXPECT_EQ(b.id, 1);
    EXPECT_EQ(b.hmi_port, 0);  // 70000 does not fit 16 bits
    EXPECT_EQ(b.plc_id, 0);
    EXPECT_EQ(b.baudrate, 0u);
    EXPECT_TRUE(b.check_bit.isEmpty());
    // Every record is printed between the separator lines.
    EXPECT_EQ(log.count("============="), 4);
    EXPECT_TRUE(log.contains("linkName:PLC1"));
    EXPECT_TRUE(log.contains("port:0"));
}

TEST(LinkConfig, BadFilesLeaveNoLinks)
{
    struct Case {
        const char *content;  // nullptr: no file
        const char *line;
    } cases[] = {{nullptr, "iot link No such file"},
                 {"{\"data\": [", "iot link File parsing failed"},
                 {"[1,2]", "iot link File parsing failed"},
                 {"\x01\x02garbage", "iot link File parsing failed"}};
    for (const Case &c : cases) {
        LogCapture log;
        WorkDir dir;
        if (c.content)
            dir.write("iotRunTime/LinkConfiguration.json", c.content);
        QList<LinkValue> links;
        lumbra::readLinkValues(links);
        EXPECT_TRUE(links.isEmpty());
        EXPECT_TRUE(log.contains(c.line)) << c.line;
    }
}

TEST(LinkConfig, UnreadableFileIsReported)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root reads every file";
    LogCapture log;
    WorkDir dir;
    dir.write("iotRunTime/LinkConfiguration.json", kTwoLinks);
    QFile::setPermissions(dir.file("iotRunTime/LinkConfiguration.json"), QFile::Permissions());
    QList<LinkValue> links;
    lumbra::readLinkValues(links);
    EXPECT_TRUE(links.isEmpty());
    EXPECT_TRUE(log.contains("iot link File opening failed"));
}

TEST(LinkConfig, EachLinkGetsItsOwnDriverCopyThatIsNeverOverwritten)
{
    LogCapture log;
    WorkDir dir;
    BoxRoot box;
    dir.write("iotRunTime/LinkConfiguration.json", kTwoLinks);
    dir.write("iotRunTime/driver/libmodbus_rtu.so", "new");
    box.write("/usr/brenta/project/driver/libmodbus_rtu_1.so", "old");
    QList<LinkValue> links;
    lumbra::readLinkValues(links);
    EXPECT_EQ(readFile(box.path() + "/usr/brenta/project/driver/libmodbus_rtu_0.so"), "new");
    EXPECT_EQ(readFile(box.path() + "/usr/brenta/project/driver/libmodbus_rtu_1.so"), "old");
}

TEST(LinkConfig, FailedDriverCopyIsLoggedAndReadingGoesOn)
{
    LogCapture log;
    WorkDir dir;
    BoxRoot box;
    dir.write("iotRunTime/LinkConfiguration.json", kTwoLinks);
    dir.write("iotRunTime/driver/libmodbus_rtu.so", "x");
    box.write("/usr/brenta/project", "a file where the folder should be");
    QList<LinkValue> links;
    lumbra::readLinkValues(links);
    EXPECT_EQ(links.size(), 2);
    EXPECT_TRUE(log.contains("driver copy failed:./iotRunTime/driver/libmodbus_rtu.so"));
}

TEST(LinkConfig, TransportClassificationAndSetupText)
{
    struct Case {
        const char *type;
        int ms;
        const char *driver;
        int expected;
    } cases[] = {{"COM1", 0, "m", 0},          {"COM2", 1, "m", 1},      {"Ethernet/TCP", 0, "m", 4},
                 {"Ethernet/TCP", 1, "IEC_104_s", 7}, {"Ethernet/TCP", 1, "m", 5}, {"CAN1", 0, "m", 6},
                 {"Ethernet", 1, "m", 2},      {"Ethernet", 0, "m", 3}, {"Ethernet", 2, "m", 3},
                 {"com1", 0, "m", 3}};
    for (const Case &c : cases) {
        LinkValue l;
        l.linkType = c.type;
        l.master_or_slave = c.ms;
        l.link_driver = c.driver;
        EXPECT_EQ(ULinkThread::getLinkCOMMType(l), c.expected) << c.type << " " << c.ms;
    }
    LinkValue s;
    s.linkType = "COM3";
    s.baudrate = 9600;
    s.data_bit = 8;
    s.stop_bit = 1;
    s.check_bit = "NONE";
    EXPECT_EQ(ULinkThread::getLinkCOMMConfig(s), "3-9600-8-1-NONE");
    LinkValue e;
    e.linkType = "Ethernet/TCP";
    e.hmi_ip = "10.0.0.5";
    e.hmi_port = 502;
    EXPECT_EQ(ULinkThread::getLinkCOMMConfig(e), "10.0.0.5:502");
    LinkValue c;
    c.linkType = "CAN1";
    c.baudrate = 500000;
    EXPECT_EQ(ULinkThread::getLinkCOMMConfig(c), "can1:500000");
    c.linkType = "can";
    c.baudrate = 0;
    EXPECT_EQ(ULinkThread::getLinkCOMMConfig(c), "can0:250000");
}

TEST(LocalRegisters, ResultsTellWhetherAValueChanged)
{
    communication *c = communication::getInstance();
    uint16_t w = 0x1234;
    auto *bytes = reinterpret_cast<const uchar *>(&w);
    EXPECT_EQ(c->setCommValue("LW", "LW", 100, 0, 1, bytes), 1);
    EXPECT_EQ(c->setCommValue("LW", "LW", 100, 0, 1, bytes), 0);
    uint16_t back = 0;
    EXPECT_EQ(c->getCommValue("LW", "LW", 100, 0, 1, reinterpret_cast<uchar *>(&back)), 1);
    EXPECT_EQ(back, 0x1234);

    uchar two = 2, one = 1;
    EXPECT_EQ(c->setCommValue("LB", "LB", 60104, 0, 1, &two), 1);
    EXPECT_EQ(c->setCommValue("LB", "LB", 60104, 0, 1, &one), 0);  // a bit is a bit

    struct Bad {
        const char *reg;
        int addr;
        int len;
    } bad[] = {{"LW", 65536, 1}, {"LW", 65535, 2}, {"LW", -1, 1}, {"LWF", 1000, 1}, {"LWF", 999, 2},
               {"RWI", 0, 0},    {"LB", 65536, 1}};
    uchar buf[8] = {0};
    for (const Bad &b : bad) {
        EXPECT_EQ(c->setCommValue(b.reg, b.reg, b.addr, 0, b.len, buf), -1) << b.reg << b.addr;
        EXPECT_EQ(c->getCommValue(b.reg, b.reg, b.addr, 0, b.len, buf), -1) << b.reg << b.addr;
    }
    EXPECT_EQ(c->setLocalValue(0, 0, 1, nullptr), -1);
    EXPECT_EQ(c->setCommValue("LWF", "LWF", 999, 0, 1, bytes), 1);
    EXPECT_EQ(communication::getLocalIndex("RWI"), 2);
    EXPECT_EQ(communication::getLocalIndex("4X"), -1);
}

TEST(LinkManager, UnknownLinksAndNoLinksAreHarmless)
{
    communication *c = communication::getInstance();
    uchar buf[4] = {0};
    EXPECT_EQ(c->getCommValue("nope", "4X", 0, 1, 1, buf), -1);
    EXPECT_EQ(c->setCommValue("nope", "4X", 0, 1, 1, buf), -1);
    EXPECT_EQ(c->getIndexFromName("nope"), -1);
    EXPECT_EQ(c->getIndexFromAddr("nope", "4X", "1", 1, 1), -1);
    EXPECT_EQ(c->getIndexFromAddr("", "LW", "60830", 0, 1), 60830);
    EXPECT_EQ(c->getIndexFromAddr("", "LWF", "1000", 0, 1), -1);
    EXPECT_EQ(c->startLinkFromName("nope"), 0);
    EXPECT_EQ(c->spendLinkFromName("nope"), 0);
    EXPECT_EQ(c->lLinkSendFromID("x", 1, 5), -1);
    c->enableExternalAddrInfo(true);
}
