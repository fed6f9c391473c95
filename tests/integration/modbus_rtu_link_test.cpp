// The whole device path: link manager -> link thread -> reference Modbus RTU
// driver -> serial port -> pty -> a libmodbus slave.
#include "device_comm/communication.h"
#include "device_comm/src/ulinkthread.h"
#include "linkprobe.h"
#include "modbusslave.h"
#include "ptypair.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QThread>

#include <cstring>
#include <functional>
#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

const int kTimeoutMs = 200;
const int kRetries = 1;

class RtuLink : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    std::unique_ptr<PtyPair> line;
    std::unique_ptr<ModbusSlave> slave;
    communication *comm = communication::getInstance();
    int hr = -1, coil = -1, f32 = -1, bitOfWord = -1;

    void SetUp() override
    {
        line = std::make_unique<PtyPair>(box.path() + "/dev/ttyO1", box.path() + "/slave");
        ASSERT_TRUE(line->ok()) << line->log().toStdString();
        slave = ModbusSlave::rtu(line->linkB(), 115200, 1);
        ASSERT_TRUE(slave);
        work.write("iotRunTime/driver/libmodbus_rtu.so", readFile(MODBUS_RTU_DRIVER));
        work.write("iotRunTime/LinkConfiguration.json",
                   QString(R"({"data":[{"link_name":"PLC1","link_type":"COM1","link_driver":"modbus_rtu",
                       "master_or_slave":0,"baudrate":"115200","data_bit":"8","stop_bit":"1","check_bit":"NONE",
                       "plc_id":"1","comm_time":5,"timeout1":%1,"retry_times":%2}]})")
                       .arg(kTimeoutMs)
                       .arg(kRetries)
                       .toUtf8());
        comm->initLinks();
        hr = comm->getIndexFromAddr("PLC1", "4X", "10", 1, 1);
        coil = comm->getIndexFromAddr("PLC1", "0X", "5", 1, 0);
        f32 = comm->getIndexFromAddr("PLC1", "4X", "20", 1, 1);
        bitOfWord = comm->getIndexFromAddr("PLC1", "4X", "30.2", 1, 0);
        ASSERT_GE(hr, 0);
        ASSERT_GE(coil, 0);
        ASSERT_GE(f32, 0);
        ASSERT_GE(bitOfWord, 0);
        comm->setExternalAddrInfo({ExternalAddrTable::makeKey("PLC1", "4X", "10", 1, 1, 0, hr),
                                   ExternalAddrTable::makeKey("PLC1", "0X", "5", 1, 1, 0, coil),
                                   ExternalAddrTable::makeKey("PLC1", "4X", "30.2", 1, 1, 0, bitOfWord)},
                                  0);
        comm->setExternalAddrInfo({ExternalAddrTable::makeKey("PLC1", "4X", "20", 1, 2, 3, f32)}, 3);
        comm->enableExternalAddrInfo(true);
    }

    void TearDown() override { comm->stopLinks(); }

    uint16_t word(int index) { return holdingWord("PLC1", index); }
};

}  // namespace

TEST_F(RtuLink, RegisteredValuesArePolledFromTheSlave)
{
    slave->setHolding(10, 1234);
    slave->setCoil(5, true);
    slave->setHolding(30, 0x0004);
    float f = 21.5f;
    uint32_t raw;
    std::memcpy(&raw, &f, 4);
    slave->setHolding(20, raw >> 16);  // high word first
    slave->setHolding(21, raw & 0xFFFF);

    EXPECT_TRUE(eventually([&] { return word(hr) == 1234; }));
    EXPECT_TRUE(eventually([&] {
        uchar c = 0;
        comm->getCommValue("PLC1", "0X", coil, 1, 1, &c, 1);
        return c == 1;
    }));
    EXPECT_TRUE(eventually([&] {
        uchar b = 0;
        comm->getCommValue("PLC1", "4X", bitOfWord, 1, 1, &b, 1);
        return b == 1;
    }));
    EXPECT_TRUE(eventually([&] {
        float got = 0;
        comm->getCommValue("PLC1", "4X", f32, 1, 2, reinterpret_cast<uchar *>(&got));
        return got == 21.5f;
    }));
    EXPECT_TRUE(eventually([&] { return localBit(60104) == 0; }));
    EXPECT_TRUE(log.contains("link:PLC1 polls 4 addresses"));
}

TEST_F(RtuLink, WritesReachTheSlaveAndReadBack)
{
    uint16_t v = 4321;
    EXPECT_EQ(comm->setCommValue("PLC1", "4X", hr, 1, 1, reinterpret_cast<uchar *>(&v)), 1);
    EXPECT_TRUE(eventually([&] { return slave->holding(10) == 4321; }));
    EXPECT_TRUE(eventually([&] { return word(hr) == 4321; }));
    uchar on = 1;
    EXPECT_EQ(comm->setCommValue("PLC1", "0X", coil, 1, 1, &on, 1), 1);
    EXPECT_TRUE(eventually([&] { return slave->coil(5); }));
}

TEST_F(RtuLink, DeadSlaveSetsTheStatusBitAndRecoveryClearsIt)
{
    EXPECT_TRUE(eventually([&] { return localBit(60104) == 0; }));
    slave->stop();
    QElapsedTimer t;
    t.start();
    // One time-out plus the retries, per poll block, with room for the cycle.
    EXPECT_TRUE(eventually([&] { return localBit(60104) == 1; }, (kRetries + 1) * kTimeoutMs * 3 + 1000));
    EXPECT_TRUE(localBit(ULinkThread::stationErrorBit(1, 1)) == 1);
    ASSERT_TRUE(slave->start());
    slave->setHolding(10, 777);
    EXPECT_TRUE(eventually([&] { return localBit(60104) == 0 && word(hr) == 777; }));
    EXPECT_TRUE(log.contains("link:PLC1 communication failed"));
    EXPECT_TRUE(log.contains("link:PLC1 communicating"));
}
