#include "portsettings.h"

#include "generalFunc/globals.h"

namespace {

struct BaudCode {
    int baud;
    speed_t code;
};

const BaudCode kBaudCodes[] = {
    {50, B50},           {75, B75},           {110, B110},         {134, B134},
    {150, B150},         {200, B200},         {300, B300},         {600, B600},
    {1200, B1200},       {1800, B1800},       {2400, B2400},       {4800, B4800},
    {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
    {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
    {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
    {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000},
    {3500000, B3500000}, {4000000, B4000000},
};

constexpr int kFallbackBaud = 9600;

tcflag_t dataBitsFlag(int bits)
{
    switch (bits) {
    case 5:
        return CS5;
    case 6:
        return CS6;
    case 7:
        return CS7;
    default:
        return CS8;
    }
}

}  // namespace

const char *parityName(ParityType parity)
{
    switch (parity) {
    case PAR_ODD:
        return "ODD";
    case PAR_EVEN:
        return "EVEN";
    case PAR_NONE:
        break;
    }
    return "NONE";
}

QString PortSettings::toText() const
{
    return QStringLiteral("%1-%2-%3-%4").arg(baudRate).arg(dataBits).arg(stopBits).arg(parityName(parity));
}

int PortSettings::bitsPerChar() const
{
    return 1 + dataBits + (parity == PAR_NONE ? 0 : 1) + stopBits;
}

speed_t termiosSpeed(int baud)
{
    for (const BaudCode &b : kBaudCodes) {
        if (b.baud == baud)
            return b.code;
    }
    return B0;
}

PortSettings sanitizePortSettings(const PortSettings &wanted, const QString &device)
{
    PortSettings s = wanted;
    const QByteArray dev = device.toLocal8Bit();
    if (termiosSpeed(s.baudRate) == B0) {
        zlog_warn(g_zlog, "%s: baud rate %d not supported, using %d", dev.constData(), s.baudRate,
                  kFallbackBaud);
        s.baudRate = kFallbackBaud;
    }
    if (s.dataBits < 5 || s.dataBits > 8) {
        zlog_warn(g_zlog, "%s: %d data bits not supported, using 8", dev.constData(), s.dataBits);
        s.dataBits = 8;
    }
    if (s.stopBits != 1 && s.stopBits != 2) {
        zlog_warn(g_zlog, "%s: %d stop bits not supported, using 1", dev.constData(), s.stopBits);
        s.stopBits = 1;
    }
    // The UART turns "2 stop bits" into 1.5 at 5 data bits; some devices reject that.
    if (s.dataBits == 5 && s.stopBits == 2)
        zlog_warn(g_zlog, "%s: 5 data bits with 2 stop bits sends 1.5 stop bits", dev.constData());
    return s;
}

void applyToTermios(const PortSettings &s, termios *line)
{
    termios &t = *line;
    cfmakeraw(&t);
    t.c_cflag &= ~(CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS);
    t.c_cflag |= CLOCAL | CREAD | dataBitsFlag(s.dataBits);
    if (s.parity != PAR_NONE)
        t.c_cflag |= PARENB | (s.parity == PAR_ODD ? PARODD : 0);
    if (s.stopBits == 2)
        t.c_cflag |= CSTOPB;
    t.c_iflag &= ~(IXON | IXOFF | IXANY);
    if (s.flowControl == FLOW_HARDWARE)
        t.c_cflag |= CRTSCTS;
    else if (s.flowControl == FLOW_XONXOFF)
        t.c_iflag |= IXON | IXOFF;
    // Reads return at once with what is there; callers wait with poll().
    t.c_cc[VMIN] = 0;
    t.c_cc[VTIME] = 0;
    const speed_t speed = termiosSpeed(s.baudRate);
    cfsetispeed(&t, speed);
    cfsetospeed(&t, speed);
}
