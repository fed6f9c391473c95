// The whole device path over Ethernet: link manager -> link thread ->
// reference Modbus TCP driver -> TCP client port -> a libmodbus TCP slave.
#include "device_comm/communication.h"
#include "linkprobe.h"
#include "modbusslave.h"
#include "tcplink.h"
#include "testsupport.h"

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

// Network links report on the shared port-0 status bit.
const int kLinkStatusBit = 60106;

class TcpLink : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    std::unique_ptr<ModbusSlave> slave;
    communication *comm = communication::getInstance();
    int hr = -1;

    void SetUp() override
    {
        int port = freeTcpPort();
        slave = ModbusSlave::tcp(port, 1);
        ASSERT_TRUE(slave);
        writeTcpLink(work.path(), MODBUS_TCP_DRIVER, port);
        comm->initLinks();
        hr = comm->getIndexFromAddr("PLC1", "4X", "10", 1, 1);
        ASSERT_GE(hr, 0);
        comm->setExternalAddrInfo({ExternalAddrTable::makeKey("PLC1", "4X", "10", 1, 1, 0, hr)}, 0);
        comm->enableExternalAddrInfo(true);
    }

    void TearDown() override { comm->stopLinks(); }

    uint16_t word() { return holdingWord("PLC1", hr); }
    int linkBit() { return localBit(kLinkStatusBit); }
};

}  // namespace

TEST_F(TcpLink, PollsAndWritesTheSlave)
{
    slave->setHolding(10, 1234);
    EXPECT_TRUE(eventually([&] { return word() == 1234; }));
    EXPECT_TRUE(eventually([&] { return linkBit() == 0; }));
    uint16_t v = 4321;
    EXPECT_EQ(comm->setCommValue("PLC1", "4X", hr, 1, 1, reinterpret_cast<uchar *>(&v)), 1);
    EXPECT_TRUE(eventually([&] { return slave->holding(10) == 4321; }));
    EXPECT_TRUE(log.contains("CommPar:127.0.0.1:"));
}

TEST_F(TcpLink, RecoversFromASlaveRestartWithoutAGatewayRestart)
{
    slave->setHolding(10, 111);
    ASSERT_TRUE(eventually([&] { return linkBit() == 0 && word() == 111; }));
    slave->stop();
    EXPECT_TRUE(eventually([&] { return linkBit() == 1; }));
    ASSERT_TRUE(slave->start());
    slave->setHolding(10, 777);
    EXPECT_TRUE(eventually([&] { return linkBit() == 0 && word() == 777; }, 10000));
    EXPECT_TRUE(log.contains("link:PLC1 communication failed"));
    EXPECT_TRUE(log.contains("link:PLC1 communicating"));
}
