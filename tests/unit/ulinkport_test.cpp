#include "device_comm/src/ulinkport.h"
#include "testsupport.h"

#include <gtest/gtest.h>

using namespace lumbra::test;

TEST(ULinkPort, TypesWithoutAPortGiveNullAndSayWhy)
{
    LogCapture log;
    for (int type : {2, 3, 4, 5, 6, 7}) {
        EXPECT_EQ(ULinkPort::CreatePort(ULinkPort::PortType(type), "127.0.0.1:502"), nullptr) << type;
        EXPECT_TRUE(log.contains(QString("port type %1 is not available").arg(type))) << type;
    }
    for (int type : {-1, 8, 100}) {
        EXPECT_EQ(ULinkPort::CreatePort(ULinkPort::PortType(type), "5-9600-8-1-NONE"), nullptr) << type;
        EXPECT_TRUE(log.contains(QString("unknown port type %1").arg(type))) << type;
    }
}
