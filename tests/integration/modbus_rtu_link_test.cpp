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
    int hr = -1;

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
        ASSERT_GE(hr, 0);
        comm->setExternalAddrInfo({ExternalAddrTable::makeAddr("PLC1", "4X", "10", 1, 1, 0, hr)}, 0);
        comm->enableExternalAddrInfo(true);
    }

    void TearDown() override { comm->stopLinks(); }

    uint16_t word(int index) { return holdingWord("PLC1", index); }
};

}  // namespace

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
    EXPECT_TRUE(eventually([&] {
        return localBit(60104) == 0 && localBit(ULinkThread::stationErrorBit(1, 1)) == 0 && word(hr) == 777;
    }));
    EXPECT_TRUE(log.contains("link:PLC1 communication failed"));
    EXPECT_TRUE(log.contains("link:PLC1 communicating"));
}
