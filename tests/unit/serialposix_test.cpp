#include "device_comm/serialport/posix_qextserialport.h"
#include "ptypair.h"
#include "testsupport.h"

#include <gtest/gtest.h>
#include <termios.h>

using namespace lumbra::test;

TEST(SerialSettings, TermiosCarriesEverySettingInRawMode)
{
    LogCapture log;
    struct Case {
        PortSettings settings;
        speed_t speed;
        tcflag_t size, parity, stop, rtscts, xon;
    } cases[] = {
        {{19200, 7, PAR_EVEN, 2, FLOW_OFF}, B19200, CS7, PARENB, CSTOPB, 0, 0},
        {{921600, 8, PAR_ODD, 1, FLOW_HARDWARE}, B921600, CS8, PARENB | PARODD, 0, CRTSCTS, 0},
        {{300, 5, PAR_NONE, 1, FLOW_XONXOFF}, B300, CS5, 0, 0, 0, IXON | IXOFF},
        {{12345, 9, PAR_NONE, 3, FLOW_OFF}, B9600, CS8, 0, 0, 0, 0},
    };
    for (const Case &c : cases) {
        const std::string name = c.settings.toText().toStdString();
        // Start from a cooked line with every setting the other way.
        termios t{};
        t.c_iflag = ICRNL | IXON | IXANY | ISTRIP;
        t.c_oflag = OPOST | ONLCR;
        t.c_lflag = ICANON | ECHO | ISIG | IEXTEN;
        t.c_cflag = CS6 | PARENB | PARODD | CSTOPB | CRTSCTS;
        t.c_cc[VMIN] = 1;
        applyToTermios(sanitizePortSettings(c.settings, "test"), &t);
        EXPECT_EQ(cfgetospeed(&t), c.speed) << name;
        EXPECT_EQ(t.c_cflag & CSIZE, c.size) << name;
        EXPECT_EQ(t.c_cflag & (PARENB | PARODD), c.parity) << name;
        EXPECT_EQ(t.c_cflag & CSTOPB, c.stop) << name;
        EXPECT_EQ(t.c_cflag & CRTSCTS, c.rtscts) << name;
        EXPECT_EQ(t.c_iflag & (IXON | IXOFF | IXANY), c.xon) << name;
        EXPECT_EQ(t.c_cflag & (CLOCAL | CREAD), tcflag_t(CLOCAL | CREAD)) << name;
        EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0u) << name;
        EXPECT_EQ(t.c_iflag & (ICRNL | ISTRIP), 0u) << name;
        EXPECT_EQ(t.c_oflag & OPOST, 0u) << name;
        EXPECT_EQ(t.c_cc[VMIN], 0) << name;
    }
    EXPECT_TRUE(log.contains("test: baud rate 12345 not supported, using 9600"));
    EXPECT_TRUE(log.contains("test: 9 data bits not supported, using 8"));
}

TEST(SerialPosix, Rs485WithoutKernelSupportIsReportedAndFreesRts)
{
    LogCapture log;
    BoxRoot box;
    PtyPair pty(box.path() + "/dev/ttyO1", box.path() + "/peer");
    ASSERT_TRUE(pty.ok()) << pty.log().toStdString();
    PortSettings s;
    s.flowControl = FLOW_HARDWARE;
    Posix_QextSerialPort port(pty.linkA(), s);
    ASSERT_TRUE(port.open(QIODevice::ReadWrite));
    EXPECT_FALSE(port.supportNew485());
    EXPECT_TRUE(port.set422Or485Flag(LINE_RS422));
    EXPECT_FALSE(port.set422Or485Flag(LINE_RS485));
    EXPECT_TRUE(log.contains(pty.linkA() + ": kernel does not switch the RS-485 direction"));
    // RTS belongs to the transceiver now.
    EXPECT_EQ(port.settings().flowControl, FLOW_OFF);
    termios t{};
    ASSERT_EQ(::tcgetattr(port.getSerFd(), &t), 0);
    EXPECT_EQ(t.c_cflag & CRTSCTS, 0u);
}

