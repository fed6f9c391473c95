// The special registers as a panel reads them from the local areas, with the
// box files in a temp box root.
#include "SpecialRegister/SpecialRegister.h"
#include "device_comm/communication.h"
#include "testsupport.h"

#include <QDir>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

// words 1: one register; 2: the 32-bit value the modem registers hold.
qint32 lw(int address, int words = 1)
{
    qint32 v = 0;
    communication::getInstance()->getLocalValue(LocalRegisters::LW, address, words, reinterpret_cast<uchar *>(&v));
    return v;
}

uchar sdCardBit()
{
    uchar v = 0xFF;
    communication::getInstance()->getLocalValue(LocalRegisters::LB, 60927, 1, &v);
    return v;
}

class SpecialRegisterTest : public ::testing::Test {
protected:
    LogCapture log;
    BoxRoot box;
    SpecialRegister *reg = SpecialRegister::getInstance();

    void TearDown() override { reg->stop(); }
};

TEST_F(SpecialRegisterTest, ClockIsWrittenInBcd)
{
    const struct {
        QDateTime at;
        std::vector<qint32> words;
    } cases[] = {
        {{{2024, 3, 1}, {9, 5, 7}}, {0x07, 0x05, 0x09, 0x01, 0x03, 0x2024, 5}},
        {{{2023, 12, 31}, {23, 59, 58}}, {0x58, 0x59, 0x23, 0x31, 0x12, 0x2023, 7}},
    };
    for (const auto &c : cases) {
        reg->dealSysTimeReg(c.at);
        std::vector<qint32> got;
        for (int a = 60000; a <= 60006; ++a)
            got.push_back(lw(a));
        EXPECT_EQ(c.words, got) << c.at.toString().toStdString();
    }
}

TEST_F(SpecialRegisterTest, ThreadKeepsClockAndSdCardCurrent)
{
    reg->init();
    EXPECT_TRUE(log.contains("file no-exist:" + box.path() + "/usr/brenta/net_inf.ini"));
    const int year = QString::number(QDate::currentDate().year()).toInt(nullptr, 16);
    EXPECT_TRUE(eventually([&] { return lw(60005) == year; }, 3000));
    // One tick is a second; the rest is slack for a loaded machine.
    ASSERT_TRUE(QDir().mkpath(box.path() + "/tmp/mmcdisk"));
    EXPECT_TRUE(eventually([] { return sdCardBit() == 1; }, 1500));
    QDir(box.path() + "/tmp/mmcdisk").removeRecursively();
    EXPECT_TRUE(eventually([] { return sdCardBit() == 0; }, 1500));
}

TEST_F(SpecialRegisterTest, ModemRegistersOnlyOnTheMobileRouteEveryTwentySeconds)
{
    // Of different sizes: QSettings takes a file rewritten within the same
    // millisecond at the same size for unchanged.
    const char *routes[] = {nullptr, "Choose_ID=0\n", "Choose_ID=1\nRouteModel=2\n"};
    for (const char *route : routes) {
        SCOPED_TRACE(route ? route : "no file");
        const qint32 untouched = 0x5A5A;
        for (int a : {60832, 60834, 60836})
            communication::getInstance()->setLocalValue(0, a, 2, reinterpret_cast<const uchar *>(&untouched));
        box.write("/tmp/run/4g.info", "IMEI=8612\nmodle_name=EC20\nsignalStrength=23\nsim_state=2\nifname=usb0\n");
        if (route)
            box.write("/usr/brenta/net_inf.ini", route);
        reg->init();  // reads the route; the thread is not needed here
        reg->stop();
        reg->tick(19);
        EXPECT_EQ(untouched, lw(60832, 2));
        reg->tick(20);
        const bool mobile = route && QByteArray(route).startsWith("Choose_ID=1");
        const std::vector<qint32> want = mobile ? std::vector<qint32>{23, 1, 2} : std::vector<qint32>(3, untouched);
        EXPECT_EQ(want, (std::vector<qint32>{lw(60832, 2), lw(60834, 2), lw(60836, 2)}));
    }
    box.write("/tmp/run/4g.info", "signalStrength=7\nsim_state=0\nifname=\n");
    reg->tick(40);
    EXPECT_EQ((std::vector<qint32>{7, 0, 0}), (std::vector<qint32>{lw(60832, 2), lw(60834, 2), lw(60836, 2)}));
    // The modem process is gone: the last values stay.
    QFile::remove(box.path() + "/tmp/run/4g.info");
    reg->tick(60);
    EXPECT_TRUE(log.contains("file no-exist:" + box.path() + "/tmp/run/4g.info"));
    EXPECT_EQ(7, lw(60832, 2));
}

}  // namespace
