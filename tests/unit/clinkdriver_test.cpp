#include "device_comm/src/clinkdriver.h"
#include "testsupport.h"

#include <QFile>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

int g_changes = 0;
void onChange(int, int, QString, int)
{
    ++g_changes;
}

// A private copy of a driver file, as the link manager stages one per link.
QString copyOf(const WorkDir &dir, const char *driver, const QString &name)
{
    QString path = dir.file(name);
    QFile::copy(driver, path);
    return path;
}

int readInt(CLinkDriver &d, const char *reg, int addr)
{
    int v = -12345;
    d.GetValue(0, reg, addr, 2, reinterpret_cast<uchar *>(&v), 4);
    return v;
}

}  // namespace

TEST(CLinkDriver, MissingEntryPointsLoadAndAnswerMinusOne)
{
    WorkDir dir;
    CLinkDriver d;
    ASSERT_TRUE(d.loadDriver(PARTIAL_DRIVER, onChange));
    uchar buf[4] = {0};
    QString text;
    int quality = -1, ticket = -1;
    EXPECT_EQ(d.GetValue(1, "4X", 0, 1, LUMBRA_KIND_16BIT, buf, 4, &quality), -1);
    EXPECT_EQ(quality, LUMBRA_QUALITY_NOT_READ);
    EXPECT_EQ(d.SetValue(1, "4X", 0, 1, LUMBRA_KIND_16BIT, buf, 4, &ticket), -1);
    EXPECT_EQ(d.WriteState(1, &text), LUMBRA_WRITE_DONE);  // no tickets: nothing to wait for
    EXPECT_EQ(d.DealRecvFrame("x", text), -1);
    EXPECT_EQ(d.GetDF(), nullptr);
    EXPECT_NE(d.GetSF(), nullptr);

    // Exported as "intf_setDisconnect", which is not the name drivers are called by.
    d.SetDisconnect();
    QLibrary lib(PARTIAL_DRIVER);
    ASSERT_TRUE(lib.load());
    auto *count = reinterpret_cast<int *>(lib.resolve("partial_disconnects"));
    ASSERT_NE(count, nullptr);
    EXPECT_EQ(*count, 0);
}

TEST(CLinkDriver, NotASharedObjectFailsToLoadWithALogLine)
{
    LogCapture log;
    WorkDir dir;
    dir.write("libbroken_0.so", "this is text, not ELF");
    CLinkDriver d;
    EXPECT_FALSE(d.loadDriver(dir.file("libbroken_0.so"), onChange));
    EXPECT_TRUE(log.contains("driver:" + dir.file("libbroken_0.so") + " load failed"));
    EXPECT_FALSE(d.loadDriver(dir.file("missing.so"), onChange));
}

TEST(CLinkDriver, TwoCopiesOfOneDriverKeepSeparateState)
{
    WorkDir dir;
    CLinkDriver a, b;
    ASSERT_TRUE(a.loadDriver(copyOf(dir, SCRIPTED_DRIVER, "libscripted_0.so"), onChange));
    ASSERT_TRUE(b.loadDriver(copyOf(dir, SCRIPTED_DRIVER, "libscripted_1.so"), onChange));
    int v = 41;
    EXPECT_EQ(a.SetValue(0, "G", 0, 2, reinterpret_cast<uchar *>(&v), 4), 1);
    v = 7;
    EXPECT_EQ(b.SetValue(0, "G", 0, 2, reinterpret_cast<uchar *>(&v), 4), 1);
    EXPECT_EQ(readInt(a, "G", 0), 41);
    EXPECT_EQ(readInt(b, "G", 0), 7);
}

TEST(CLinkDriver, ForwardsFramesResultsAndTexts)
{
    WorkDir dir;
    CLinkDriver d;
    ASSERT_TRUE(d.loadDriver(copyOf(dir, SCRIPTED_DRIVER, "libscripted_0.so"), onChange));
    EXPECT_EQ(d.SetDriverPropertyPage("results=2,100;station=12;setup=1-9600-8-1-NONE"), 1);
    FRAME_PRO f;
    EXPECT_NE(d.GetSendFrame(f), 0);
    EXPECT_EQ(QByteArray(reinterpret_cast<char *>(f.data), f.len), "REQ0");
    QString text;
    EXPECT_EQ(d.DealRecvFrame("abc", text), 2);
    EXPECT_EQ(text, "12");
    EXPECT_EQ(readInt(d, "CNT", 3), 3);  // the driver saw all three bytes
    EXPECT_EQ(d.DealRecvFrame("", text), 100);
    EXPECT_EQ(text, "1-9600-8-1-NONE");
    d.SetDisconnect();
    EXPECT_EQ(readInt(d, "CNT", 1), 1);
    int index = -1;
    EXPECT_EQ(d.CheckAddressValidity("4X", "12.3", index, 1, 0), LUMBRA_ADDR_OK);
    EXPECT_EQ(index, 1203);
}
