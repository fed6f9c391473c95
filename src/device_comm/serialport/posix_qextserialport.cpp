#include "posix_qextserialport.h"

#include "generalFunc/globals.h"

#include <linux/serial.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <utility>

// Logged where the call failed, so that the line names that function.
#define LOG_ERRNO(what)                                                                     \
    do {                                                                                    \
        const int err_ = errno;                                                             \
        zlog_error(g_zlog, "%s: %s failed: %s", m_device.toLocal8Bit().constData(), (what), \
                   std::strerror(err_));                                                    \
    } while (0)

namespace {

const char kUngetCharMessage[] =
    "Posix_QextSerialPort: ungetChar() called on an unbuffered sequential device - operation is meaningless";

// A line that takes no byte for this long is held by flow control or gone.
constexpr int kWriteStallMs = 2000;

// poll() on one descriptor that survives signals without stretching the wait.
// Returns poll's result; *revents holds what happened.
int pollFd(int fd, short events, int timeoutMs, short *revents)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    pollfd p{fd, events, 0};
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        int r = ::poll(&p, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (r >= 0 || errno != EINTR) {
            *revents = p.revents;
            return r;
        }
    }
}

int openFlags(QIODevice::OpenMode mode)
{
    if ((mode & QIODevice::ReadWrite) == QIODevice::ReadWrite)
        return O_RDWR;
    return (mode & QIODevice::WriteOnly) ? O_WRONLY : O_RDONLY;
}

}  // namespace

Posix_QextSerialPort::Posix_QextSerialPort(const QString &device, const PortSettings &settings,
                                           QObject *parent)
    : QIODevice(parent), m_device(device), m_settings(sanitizePortSettings(settings, device))
{
}

Posix_QextSerialPort::~Posix_QextSerialPort()
{
    close();
}

bool Posix_QextSerialPort::open(OpenMode mode)
{
    if (isOpen())
        return true;
    const QByteArray path = m_device.toLocal8Bit();
    FdHandle fd(::open(path.constData(), openFlags(mode) | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) {
        LOG_ERRNO("open");
        return false;
    }
    m_fd = std::move(fd);
    if (!applySettings()) {
        m_fd.reset();
        return false;
    }
    return QIODevice::open(mode | Unbuffered);
}

void Posix_QextSerialPort::close()
{
    if (isOpen())
        QIODevice::close();
    m_fd.reset();
}

bool Posix_QextSerialPort::applySettings()
{
    termios line{};
    if (::tcgetattr(m_fd.get(), &line) < 0) {
        LOG_ERRNO("tcgetattr");
        return false;
    }
    termios t = line;
    applyToTermios(m_settings, &t);
    if (::tcsetattr(m_fd.get(), TCSANOW, &t) == 0)
        return true;
    if (errno != EINVAL) {
        LOG_ERRNO("tcsetattr");
        return false;
    }
    // Some lines refuse a character format outright (a pty takes no parity,
    // simple UARTs no 5 or 6 data bits); 8N1 at the same speed always goes.
    PortSettings plain = m_settings;
    plain.dataBits = 8;
    plain.parity = PAR_NONE;
    plain.stopBits = 1;
    zlog_warn(g_zlog, "%s: line refuses %s, using %s", m_device.toLocal8Bit().constData(),
              m_settings.toText().toLocal8Bit().constData(), plain.toText().toLocal8Bit().constData());
    t = line;
    applyToTermios(plain, &t);
    if (::tcsetattr(m_fd.get(), TCSANOW, &t) < 0) {
        LOG_ERRNO("tcsetattr");
        return false;
    }
    m_settings = plain;
    return true;
}

bool Posix_QextSerialPort::setSettings(const PortSettings &settings)
{
    m_settings = sanitizePortSettings(settings, m_device);
    return !m_fd.valid() || applySettings();
}

bool Posix_QextSerialPort::setBaudRate(int baud)
{
    PortSettings s = m_settings;
    s.baudRate = baud;
    return setSettings(s);
}

bool Posix_QextSerialPort::setDataBits(int bits)
{
    PortSettings s = m_settings;
    s.dataBits = bits;
    return setSettings(s);
}

bool Posix_QextSerialPort::setParity(ParityType parity)
{
    PortSettings s = m_settings;
    s.parity = parity;
    return setSettings(s);
}

bool Posix_QextSerialPort::setStopBits(int bits)
{
    PortSettings s = m_settings;
    s.stopBits = bits;
    return setSettings(s);
}

bool Posix_QextSerialPort::setFlowControl(FlowType flow)
{
    PortSettings s = m_settings;
    s.flowControl = flow;
    return setSettings(s);
}

int Posix_QextSerialPort::pendingBytes() const
{
    int n = 0;
    if (!m_fd.valid() || ::ioctl(m_fd.get(), FIONREAD, &n) < 0)
        return -1;
    return n;
}

qint64 Posix_QextSerialPort::bytesAvailable() const
{
    const int n = pendingBytes();
    return (n > 0 ? n : 0) + QIODevice::bytesAvailable();
}

int Posix_QextSerialPort::pollReadable(int timeoutMs) const
{
    if (!m_fd.valid())
        return -1;
    short revents = 0;
    const int r = pollFd(m_fd.get(), POLLIN, timeoutMs, &revents);
    if (r < 0) {
        LOG_ERRNO("poll");
        return -1;
    }
    if (r == 0)
        return 0;
    // A hung-up pty still reports POLLIN; only real bytes count.
    if ((revents & (POLLHUP | POLLERR | POLLNVAL)) && pendingBytes() <= 0) {
        zlog_error(g_zlog, "%s: line hung up", m_device.toLocal8Bit().constData());
        return -1;
    }
    return 1;
}

bool Posix_QextSerialPort::waitForReadyRead(int msecs)
{
    return pollReadable(msecs) > 0;
}

qint64 Posix_QextSerialPort::readData(char *data, qint64 maxSize)
{
    for (;;) {
        const ssize_t n = ::read(m_fd.get(), data, static_cast<size_t>(maxSize));
        if (n >= 0)
            return n;
        if (errno == EAGAIN)
            return 0;
        if (errno != EINTR) {
            LOG_ERRNO("read");
            return -1;
        }
    }
}

qint64 Posix_QextSerialPort::writeData(const char *data, qint64 maxSize)
{
    qint64 written = 0;
    while (written < maxSize) {
        const ssize_t n = ::write(m_fd.get(), data + written, static_cast<size_t>(maxSize - written));
        if (n > 0) {
            written += n;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN) {
            LOG_ERRNO("write");
            return written > 0 ? written : -1;
        }
        short revents = 0;
        if (pollFd(m_fd.get(), POLLOUT, kWriteStallMs, &revents) <= 0 || !(revents & POLLOUT)) {
            zlog_error(g_zlog, "%s: write stalled after %lld of %lld bytes",
                       m_device.toLocal8Bit().constData(), static_cast<long long>(written),
                       static_cast<long long>(maxSize));
            return written > 0 ? written : -1;
        }
    }
    return written;
}

bool Posix_QextSerialPort::writeWait()
{
    if (!m_fd.valid())
        return false;
    while (::tcdrain(m_fd.get()) < 0) {
        if (errno != EINTR) {
            LOG_ERRNO("tcdrain");
            return false;
        }
    }
    return true;
}

bool Posix_QextSerialPort::flushInput()
{
    if (!m_fd.valid())
        return false;
    if (::tcflush(m_fd.get(), TCIFLUSH) < 0) {
        LOG_ERRNO("tcflush");
        return false;
    }
    return true;
}

bool Posix_QextSerialPort::setModemLine(int line, bool on)
{
    if (!m_fd.valid())
        return false;
    if (::ioctl(m_fd.get(), on ? TIOCMBIS : TIOCMBIC, &line) < 0) {
        LOG_ERRNO(line == TIOCM_RTS ? "setting RTS" : "setting DTR");
        return false;
    }
    return true;
}

bool Posix_QextSerialPort::hasModemControl() const
{
    int bits = 0;
    return m_fd.valid() && ::ioctl(m_fd.get(), TIOCMGET, &bits) == 0;
}

bool Posix_QextSerialPort::setRts(bool on)
{
    return setModemLine(TIOCM_RTS, on);
}

bool Posix_QextSerialPort::setDtr(bool on)
{
    return setModemLine(TIOCM_DTR, on);
}

bool Posix_QextSerialPort::supportNew485() const
{
    serial_rs485 rs{};
    return m_fd.valid() && ::ioctl(m_fd.get(), TIOCGRS485, &rs) == 0;
}

bool Posix_QextSerialPort::set422Or485Flag(int mode)
{
    if (!m_fd.valid())
        return false;
    m_lineMode = (mode == LINE_RS422 || mode == LINE_RS485) ? mode : LINE_RS232;
    const bool want485 = m_lineMode == LINE_RS485;
    const QByteArray dev = m_device.toLocal8Bit();
    if (want485 && m_settings.flowControl == FLOW_HARDWARE) {
        zlog_warn(g_zlog, "%s: RTS turns the RS-485 driver around, hardware flow control off",
                  dev.constData());
        setFlowControl(FLOW_OFF);
    }
    serial_rs485 rs{};
    if (::ioctl(m_fd.get(), TIOCGRS485, &rs) < 0) {
        // Not a failure of the line: the caller turns the driver around itself.
        if (want485)
            zlog_debug(g_zlog, "%s: kernel does not switch the RS-485 direction (%s)", dev.constData(),
                       std::strerror(errno));
        return !want485;
    }
    if (want485) {
        rs.flags |= SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND;
        rs.flags &= ~(SER_RS485_RTS_AFTER_SEND | SER_RS485_RX_DURING_TX);
    } else {
        rs.flags &= ~SER_RS485_ENABLED;
    }
    if (::ioctl(m_fd.get(), TIOCSRS485, &rs) < 0) {
        LOG_ERRNO("TIOCSRS485");
        return false;
    }
    return true;
}

void Posix_QextSerialPort::ungetChar(char)
{
    zlog_warn(g_zlog, "%s", kUngetCharMessage);
}
