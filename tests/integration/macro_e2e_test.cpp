// A cyclic script between a real Modbus TCP slave and the link manager: what
// it reads with getdata is polled before it first asks, and what it writes
// with setdata reaches the slave.
#include "Macro/Macro.h"
#include "device_comm/communication.h"
#include "modbusslave.h"
#include "tcplink.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace lumbra::test;

TEST(MacroDevice, CyclicScriptReadsComputesAndWritesThroughTheSlave)
{
    WorkDir work;
    BoxRoot box;
    const int port = freeTcpPort();
    auto slave = ModbusSlave::tcp(port, 1);
    ASSERT_TRUE(slave);
    slave->setHolding(10, 21);
    writeTcpLink(work.path(), MODBUS_TCP_DRIVER, port);
    // The first value the script ever reads goes to LW 1; after that it keeps
    // holding 11 at twice holding 10 plus one.
    const QString text = R"(
local v = getdata("PLC1", "4X", 10, 1, 1, DATA_TYPE_WUB)
if v == nil then return end
if first == nil then first = v setdata("", "LW", 1, v, 0, nil, DATA_TYPE_WUB) end
setdata("PLC1", "4X", 11, v * 2 + 1, 1, nil, DATA_TYPE_WUB))";
    const QJsonObject item{{"id", 1}, {"type", 2}, {"cycly_time", 500}, {"flag", 1}, {"text", text}};
    work.write("iotRunTime/ScriptConfiguration.json",
               QJsonDocument(QJsonObject{{"data", QJsonArray{item}}}).toJson());

    communication *comm = communication::getInstance();
    comm->initLinks();
    Macro::getInstance()->init();
    comm->enableExternalAddrInfo(true);

    EXPECT_TRUE(eventually([&] { return slave->holding(11) == 43; }, 5000));
    uint16_t first = 0;
    comm->getCommValue("", "LW", 1, 0, 1, reinterpret_cast<uchar *>(&first), 2);
    EXPECT_EQ(first, 21);
    slave->setHolding(10, 100);
    EXPECT_TRUE(eventually([&] { return slave->holding(11) == 201; }, 5000));

    Macro::getInstance()->stop();
    comm->stopLinks();
}
