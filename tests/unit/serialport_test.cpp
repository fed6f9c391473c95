#include "device_comm/src/ulinkportserial.h"
#include "fdend.h"
#include "ptypair.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QThread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <termios.h>
#include <thread>

using namespace lumbra::test;

namespace {

struct PortReleaser {
    void operator()(ULinkPort *port) const { ULinkPort::ReleasePort(port); }
};
using PortPtr = std::unique_ptr<ULinkPort, PortReleaser>;

// A tty as the kernel hands it out is cooked: line editing, echo, CR/LF
// mapping, XON/XOFF and signal characters. The port has to undo all of it.
void spoilLine(const QString &path)
{
    FdHandle fd(::open(path.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(fd.valid()) << path.toStdString();
    termios t{};
    ASSERT_EQ(::tcgetattr(fd.get(), &t), 0);
    t.c_lflag |= ICANON | ECHO | ISIG | IEXTEN;
    t.c_iflag |= ICRNL | IXON;
    t.c_oflag |= OPOST | ONLCR;
    ASSERT_EQ(::tcsetattr(fd.get(), TCSANOW, &t), 0);
}

ULinkPortSerial *asSerial(ULinkPort *port)
{
    return qobject_cast<ULinkPortSerial *>(port);
}

class SerialLine : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(pty.ok()) << pty.log().toStdString();
        ASSERT_TRUE(peer.ok());
        spoilLine(pty.linkA());
    }
    ULinkPortSerial *open(const std::string &text)
    {
        port.reset(ULinkPort::CreatePort(ULinkPort::PORT_SERIAL_MASTER, text));
        return asSerial(port.get());
    }

    LogCapture log;
    BoxRoot box;
    PtyPair pty{box.path() + "/dev/ttyO5", box.path() + "/peer"};
    FdEnd peer{pty.linkB()};
    PortPtr port;
};

}  // namespace

TEST(SerialSetup, ReadsTheSetupText)
{
    LogCapture log;
    struct Case {
        const char *text;
        int tty;
        const char *settings;
        int mode;
    } cases[] = {
        {"5-9600-8-1-NONE", 5, "9600-8-1-NONE", LINE_RS232},
        {"3-19200-7-2-even-422", 3, "19200-7-2-EVEN", LINE_RS422},
        {"3-19200-8-1-Odd-485", 3, "19200-8-1-ODD", LINE_RS485},
        {"3-19200-8-1-NONE-3", 3, "19200-8-1-NONE", LINE_RS485},
        {"3-19200-8-1-NONE-7", 3, "19200-8-1-NONE", LINE_RS232},
        {"--2--115200-8-1-none--", 2, "115200-8-1-NONE", LINE_RS232},
        {"1-9600-8-1-MARK", 1, "9600-8-1-NONE", LINE_RS232},
    };
    for (const Case &c : cases) {
        SerialSetup s;
        ASSERT_TRUE(ULinkPortSerial::parseSetupText(c.text, &s)) << c.text;
        EXPECT_EQ(s.ttyNumber, c.tty) << c.text;
        EXPECT_EQ(s.settings.toText(), c.settings) << c.text;
        EXPECT_EQ(s.mode, c.mode) << c.text;
    }
    EXPECT_TRUE(log.contains("parity \"MARK\" unknown, using NONE"));
}

TEST(SerialSetup, UnusableTextsOrDevicesGiveNoPort)
{
    LogCapture log;
    BoxRoot box;
    box.write("/dev/ttyO7", "a plain file, not a line");
    struct Case {
        const char *text;
        const char *logged;
    } cases[] = {
        {"", "want tty-baud-databits-stopbits-parity"},
        {"5-9600-8-1", "want tty-baud-databits-stopbits-parity"},
        {"5-9600-8-1-NONE-485-x", "want tty-baud-databits-stopbits-parity"},
        {"5-fast-8-1-NONE", "\"fast\" is not a number"},
        {"5-9600-8.5-1-NONE", "\"8.5\" is not a number"},
        {"6-9600-8-1-NONE", "/dev/ttyO6: open failed: No such file or directory"},
        {"7-9600-8-1-NONE", "/dev/ttyO7: tcgetattr failed: Inappropriate ioctl for device"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(ULinkPort::CreatePort(ULinkPort::PORT_SERIAL_SLAVE, c.text), nullptr) << c.text;
        EXPECT_TRUE(log.contains(c.logged)) << c.text << "\n" << log.text().toStdString();
    }
}

TEST(SerialSetup, VelorCom3IsAlwaysRs485)
{
    LogCapture log;
    BoxRoot box;
    box.write("/usr/brenta/config.ini", "MODEL=VELOR-7\n");
    PtyPair pty(box.path() + "/dev/ttyO3", box.path() + "/peer");
    ASSERT_TRUE(pty.ok()) << pty.log().toStdString();
    PortPtr port(ULinkPort::CreatePort(ULinkPort::PORT_SERIAL_MASTER, "3-9600-8-1-NONE"));
    ASSERT_NE(asSerial(port.get()), nullptr);
    EXPECT_EQ(asSerial(port.get())->lineMode(), LINE_RS485);
    EXPECT_FALSE(asSerial(port.get())->useNew485());
}

TEST_F(SerialLine, CarriesBinaryFramesBothWaysUntouched)
{
    ULinkPortSerial *serial = open("5-9600-8-1-NONE");
    ASSERT_NE(serial, nullptr);
    EXPECT_TRUE(log.contains("serial par:" + box.path() + "/dev/ttyO5 9600-8-1-NONE mode:-1 new485:0"));

    // CR, LF, NUL, XON/XOFF, ^C, DEL, ^Z: what a cooked line would eat or change.
    const QByteArray request("\x01\x03\r\n\x00\x11\x13\x03\x7f\x1a", 10);
    EXPECT_EQ(serial->Send(request.constData(), request.size()), request.size());
    EXPECT_EQ(peer.read(request.size() + 1, 300), request);

    const QByteArray reply("\x01\x03\x02\x00\x0a\r\x11", 7);
    ASSERT_TRUE(peer.write(reply));
    QByteArray got;
    EXPECT_EQ(serial->Recv(got, 1000), reply.size());
    EXPECT_EQ(got, reply);
}

TEST_F(SerialLine, RecvTimesOutWithNothingOnTheLine)
{
    ULinkPortSerial *serial = open("5-9600-8-1-NONE");
    ASSERT_NE(serial, nullptr);
    QElapsedTimer clock;
    clock.start();
    QByteArray got;
    EXPECT_EQ(serial->Recv(got, 200), 0);
    EXPECT_GE(clock.elapsed(), 190);
    EXPECT_LT(clock.elapsed(), 1500);
    EXPECT_TRUE(got.isEmpty());
}

TEST_F(SerialLine, RecvJoinsPiecesAndSplitsFramesAtSilence)
{
    // At 300 baud a frame ends after 67 ms of silence.
    ULinkPortSerial *serial = open("5-300-8-1-NONE");
    ASSERT_NE(serial, nullptr);
    std::thread talker([this] {
        for (const char *piece : {"\x01\x03", "\x04\x05", "\x0a\x0b"}) {
            peer.write(piece);
            QThread::msleep(5);
        }
        QThread::msleep(300);
        peer.write("next");
    });
    QByteArray frame, next;
    EXPECT_EQ(serial->Recv(frame, 1000), 6);
    EXPECT_EQ(frame, QByteArray("\x01\x03\x04\x05\x0a\x0b"));
    EXPECT_EQ(serial->Recv(next, 1000), 4);
    EXPECT_EQ(next, "next");
    talker.join();
}

TEST_F(SerialLine, RecvWithoutTimeOutTakesWhatKeepsArrivingUpToLen)
{
    ULinkPortSerial *serial = open("5-9600-8-1-NONE");
    ASSERT_NE(serial, nullptr);
    char buf[64] = {};
    EXPECT_EQ(serial->Recv_NoTimeOut(buf, sizeof buf), 0);

    ASSERT_TRUE(peer.write("12345"));
    QThread::msleep(100);
    EXPECT_EQ(serial->Recv_NoTimeOut(buf, 3), 3);
    EXPECT_EQ(QByteArray(buf, 3), "123");
    EXPECT_EQ(serial->Recv(buf, 1), 1);
    EXPECT_EQ(serial->Recv(buf + 1, sizeof buf - 1), 1);
    EXPECT_EQ(QByteArray(buf, 2), "45");

    // Two bytes every 3 ms: the 10 ms pauses must not end the read early.
    ASSERT_TRUE(peer.write("ab"));
    QThread::msleep(50);
    std::thread talker([this] {
        for (const char *pair : {"cd", "ef", "gh", "ij", "kl"}) {
            QThread::msleep(3);
            peer.write(pair);
        }
    });
    const int n = serial->Recv_NoTimeOut(buf, 8);
    talker.join();
    EXPECT_GT(n, 2);
    EXPECT_LE(n, 8);
    EXPECT_EQ(QByteArray(buf, n), QByteArray("abcdefgh").left(n));
    QThread::msleep(50);
    EXPECT_EQ(serial->Recv_NoTimeOut(buf, sizeof buf), 12 - n);
}

TEST_F(SerialLine, ResetRestoresTheLineAndSurvivesItsLoss)
{
    ULinkPortSerial *serial = open("5-9600-8-1-NONE");
    ASSERT_NE(serial, nullptr);
    spoilLine(pty.linkA());
    EXPECT_EQ(serial->Reset(), 1);
    EXPECT_EQ(serial->Send("\r\n", 2), 2);
    EXPECT_EQ(peer.read(3, 300), "\r\n");

    pty.stop();
    char buf[8];
    QByteArray got;
    QElapsedTimer clock;
    clock.start();
    EXPECT_LT(serial->Send("x", 1), 0);
    EXPECT_LE(serial->Recv(got, 500), 0);
    EXPECT_LE(serial->Recv(buf, sizeof buf), 0);
    EXPECT_LE(serial->Recv_NoTimeOut(buf, sizeof buf), 0);
    EXPECT_LT(clock.elapsed(), 3000);
    EXPECT_EQ(serial->Reset(), -1);
    EXPECT_LT(serial->Send("x", 1), 0);
    EXPECT_EQ(serial->commStatus(), 0);

    PtyPair again(pty.linkA(), pty.linkB());
    ASSERT_TRUE(again.ok()) << again.log().toStdString();
    FdEnd newPeer(again.linkB());
    EXPECT_EQ(serial->Reset(), 1);
    EXPECT_EQ(serial->Send("ok", 2), 2);
    EXPECT_EQ(newPeer.read(2, 1000), "ok");
}

TEST_F(SerialLine, Rs485WithoutKernelSupportStillSends)
{
    struct Case {
        const char *text;
        int mode;
    } cases[] = {
        {"5-9600-8-1-NONE-485", LINE_RS485},
        {"5-9600-8-1-NONE-3", LINE_RS485},
        {"5-9600-8-1-NONE-422", LINE_RS422},
    };
    for (const Case &c : cases) {
        const int fallbacks = log.count("no RTS control either, sending as is");
        ULinkPortSerial *serial = open(c.text);
        ASSERT_NE(serial, nullptr) << c.text;
        EXPECT_EQ(serial->lineMode(), c.mode) << c.text;
        EXPECT_FALSE(serial->useNew485()) << c.text;
        EXPECT_EQ(log.count("no RTS control either, sending as is") - fallbacks,
                  c.mode == LINE_RS485 ? 1 : 0)
            << c.text;
        EXPECT_EQ(serial->Send("485", 3), 3) << c.text;
        EXPECT_EQ(peer.read(3, 1000), "485") << c.text;
    }
}

// A driver may hand the port new parameters at any time; a pty refuses parity
// once nothing else changes, as simple UARTs refuse some formats.
TEST_F(SerialLine, NewSetupReopensTheLineEvenInAFormatItRefuses)
{
    ULinkPortSerial *serial = open("5-115200-8-1-NONE");
    ASSERT_NE(serial, nullptr);
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(serial->setup("5-9600-8-1-EVEN")) << i;
        EXPECT_EQ(serial->Send("ab", 2), 2) << i;
        EXPECT_EQ(peer.read(2, 1000), "ab") << i;
    }
    EXPECT_TRUE(log.contains("line refuses 9600-8-1-EVEN, using 9600-8-1-NONE"));
}
