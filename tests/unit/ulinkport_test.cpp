#include "device_comm/src/ulinkport.h"
#include "testsupport.h"

#include <gtest/gtest.h>

using namespace lumbra::test;

TEST(ULinkPort, UnknownTypesGiveNullAndSayWhy)
{
    LogCapture log;
    for (int type : {-1, 8, 100}) {
        EXPECT_EQ(ULinkPort::CreatePort(ULinkPort::PortType(type), "5-9600-8-1-NONE"), nullptr) << type;
        EXPECT_TRUE(log.contains(QString("unknown port type %1").arg(type))) << type;
    }
}
