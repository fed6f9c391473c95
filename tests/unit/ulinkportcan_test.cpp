#include "device_comm/src/ulinkportcan.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <linux/can.h>
#include <linux/can/error.h>
#include <sys/socket.h>

#include <cstring>
#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

// The port on one end of a frame-per-datagram socket pair, the test on the other.
class ULinkPortCANTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
        ASSERT_TRUE(port.attachSocket(fds[0]));
        peer.reset(fds[1]);
    }
    // Send has written by the time it returns, so there is nothing to wait for.
    bool peerRead(can_frame *frame)
    {
        return recv(peer.get(), frame, sizeof *frame, MSG_DONTWAIT) == sizeof *frame;
    }
    // Bytes past the length are junk, as a driver may leave them.
    void peerWrite(canid_t id, std::initializer_list<int> data)
    {
        can_frame f {};
        std::memset(f.data, 0xee, sizeof f.data);
        f.can_id = id;
        f.can_dlc = static_cast<__u8>(data.size());
        std::copy(data.begin(), data.end(), f.data);
        ASSERT_EQ(write(peer.get(), &f, sizeof f), static_cast<ssize_t>(sizeof f));
    }
    LogCapture log;
    ULinkPortCAN port;
    FdHandle peer;
};

TEST_F(ULinkPortCANTest, SendPacksOneFrame)
{
    const struct {
        const char *stream;
        int result;
        canid_t id;
        const char *data;
    } cases[] = {
        {"0000012301", -1, 0, ""},
        {"12345678abcd", 16, CAN_EFF_FLAG | 0x12345678, "abcd"},
        {"000007ff0102", 16, 0x7ff, "0102"},
        {"000008000102", 16, CAN_EFF_FLAG | 0x800, "0102"},
        {"000001230102030405060708090a0b0c0d0e0f10", 16, 0x123, "0102030405060708"},
    };
    for (const auto &c : cases) {
        const QByteArray stream = QByteArray::fromHex(c.stream);
        ASSERT_EQ(port.Send(stream.constData(), stream.size()), c.result) << c.stream;
        can_frame f {};
        EXPECT_EQ(peerRead(&f), c.result > 0) << c.stream;
        EXPECT_EQ(f.can_id, c.id) << c.stream;
        EXPECT_EQ(QByteArray(reinterpret_cast<char *>(f.data), f.can_dlc).toHex(), c.data) << c.stream;
    }
    EXPECT_TRUE(log.contains("can send len:16"));
}

TEST_F(ULinkPortCANTest, FramesBecomeRecordsErrorFramesOnlyNamed)
{
    peerWrite(0x123, {1, 2, 3});
    peerWrite(CAN_ERR_FLAG | CAN_ERR_BUSOFF | CAN_ERR_ACK, {});
    peerWrite(CAN_EFF_FLAG | CAN_RTR_FLAG | 0x1abcdef, {});
    QByteArray buffer("x");
    ASSERT_EQ(port.Recv(buffer, 200), 26);
    EXPECT_EQ(buffer.toHex(), "78"
                              "00000123" "03" "0102030000000000"
                              "c1abcdef" "00" "0000000000000000");
    for (QString name : {"CAN_ERR_TX_TIMEOUT", "CAN_ERR_LOSTARB", "CAN_ERR_CRTL", "CAN_ERR_PROT", "CAN_ERR_TRX",
                         "CAN_ERR_ACK", "CAN_ERR_BUSOFF", "CAN_ERR_BUSERROR", "CAN_ERR_RESTARTED"})
        EXPECT_EQ(log.contains(name), name == "CAN_ERR_ACK" || name == "CAN_ERR_BUSOFF") << name.toStdString();
}

TEST_F(ULinkPortCANTest, RecvTimesOutThenClosedPortRefuses)
{
    QByteArray buffer;
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(port.Recv(buffer, 150), 0);
    EXPECT_GE(clock.elapsed(), 140);
    EXPECT_LT(clock.elapsed(), 1000);
    EXPECT_EQ(port.commStatus(), 1);
    port.shutdown();
    EXPECT_EQ(port.commStatus(), 0);
    EXPECT_EQ(port.Recv(buffer, 10), -1);
    EXPECT_EQ(port.Send("\0\0\1\x23\1\2", 6), -1);
}

// Fake ifconfig and ip first on PATH, recording each call, for as long as it lives.
struct FakeNetTools {
    QTemporaryDir dir;
    const QByteArray oldPath = qgetenv("PATH");
    const QString calls = dir.filePath("calls");
    FakeNetTools()
    {
        for (const char *tool : {"ifconfig", "ip"}) {
            writeFile(dir.filePath(tool), QByteArray("#!/bin/sh\necho \"") + tool + " $*\" >> '" + calls.toUtf8() + "'\n");
            QFile::setPermissions(dir.filePath(tool), QFile::ReadOwner | QFile::ExeOwner);
        }
        qputenv("PATH", dir.path().toUtf8() + ":" + oldPath);
    }
    ~FakeNetTools() { qputenv("PATH", oldPath); }
};

TEST(ULinkPortCANSetup, RunsTheCommandOnlyForGoodTextsThenFailsCleanly)
{
    FakeNetTools tools;
    LogCapture log;
    ULinkPortCAN port;
    // Names reach a shell and ifr_name, so odd ones must stop before either.
    for (const char *text : {"can0", "can0:", ":250000", "can0:fast", "can0:0", "can0:-250000",
                             "can0;reboot:250000", "can 0:250000", "averyverylongname:250000"}) {
        EXPECT_FALSE(port.setup(text)) << text;
        EXPECT_TRUE(log.contains(QString("can setup failed:") + text)) << text;
    }
    EXPECT_FALSE(QFile::exists(tools.calls));
    EXPECT_EQ(port.Reset(), -1);

    // No CAN interface here: the socket or the index look-up must fail, and say so.
    EXPECT_FALSE(port.setup("lumbratest0:250000"));
    const QByteArray once = "ifconfig lumbratest0 down\n"
                            "ip link set lumbratest0 type can bitrate 250000 restart-ms 1000\n"
                            "ifconfig lumbratest0 up\n";
    EXPECT_EQ(readFile(tools.calls), once);
    EXPECT_TRUE(log.contains("can socket create failed") || log.contains("can ioctl failed"));
    EXPECT_EQ(port.commStatus(), 0);
    EXPECT_EQ(port.Reset(), -1);
    EXPECT_EQ(readFile(tools.calls), once + once);
}

}  // namespace
