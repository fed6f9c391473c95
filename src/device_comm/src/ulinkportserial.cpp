#include "ulinkportserial.h"

#include "generalFunc/boxpath.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"

#include <QElapsedTimer>
#include <QStringList>
#include <QThread>

#include <algorithm>
#include <cmath>

namespace {

// A talker that never pauses must not hold the link thread for ever: a frame
// is cut after this long, or after the reply time-out if that is longer.
constexpr int kMinGatherMs = 1000;
constexpr int kRecvChunk = 512;
constexpr int kNoTimeoutPauseMs = 10;

ParityType parityFromName(const QString &name, const std::string &text)
{
    const QString upper = name.trimmed().toUpper();
    if (upper == QLatin1String("EVEN"))
        return PAR_EVEN;
    if (upper == QLatin1String("ODD"))
        return PAR_ODD;
    if (upper != QLatin1String("NONE"))
        zlog_warn(g_zlog, "serial set-up \"%s\": parity \"%s\" unknown, using NONE", text.c_str(),
                  name.toLocal8Bit().constData());
    return PAR_NONE;
}

int modeFromNumber(const QString &part)
{
    switch (part.trimmed().toInt()) {
    case 422:
        return LINE_RS422;
    case 485:
    case 3:
        return LINE_RS485;
    default:
        return LINE_RS232;
    }
}

}  // namespace

ULinkPortSerial::ULinkPortSerial(PortType type, QObject *parent) : ULinkPort(type, parent)
{
}

ULinkPortSerial::~ULinkPortSerial() = default;

bool ULinkPortSerial::parseSetupText(const std::string &text, SerialSetup *out)
{
    const QStringList parts = QString::fromStdString(text).split('-', Qt::SkipEmptyParts);
    if (parts.size() < 5 || parts.size() > 6) {
        zlog_info(g_zlog, "serial set-up \"%s\": want tty-baud-databits-stopbits-parity[-mode]",
                  text.c_str());
        return false;
    }
    int numbers[4];
    for (int i = 0; i < 4; ++i) {
        bool ok = false;
        numbers[i] = parts[i].trimmed().toInt(&ok);
        if (!ok) {
            zlog_info(g_zlog, "serial set-up \"%s\": \"%s\" is not a number", text.c_str(),
                      parts[i].toLocal8Bit().constData());
            return false;
        }
    }
    SerialSetup s;
    s.ttyNumber = numbers[0];
    s.settings.baudRate = numbers[1];
    s.settings.dataBits = numbers[2];
    s.settings.stopBits = numbers[3];
    s.settings.parity = parityFromName(parts[4], text);
    if (parts.size() == 6)
        s.mode = modeFromNumber(parts[5]);
    *out = s;
    return true;
}

bool ULinkPortSerial::isVELOR_COM3(const QString &device)
{
    const QString model =
        unitTool::GetIniValue("MODEL", lumbra::boxPath("/usr/brenta/config.ini")).toString();
    const bool velor = device == QLatin1String("/dev/ttyO3") && model.contains("VELOR", Qt::CaseInsensitive);
    zlog_info(g_zlog, "%s isVELOR_COM3:%s", device.toLocal8Bit().constData(), velor ? "true" : "false");
    return velor;
}

// 3.5 character times end a frame, as Modbus RTU has it, but never less than
// 5 ms: the tty layer hands received bytes up in bursts (UART FIFO time-out,
// flip-buffer work) with a few ms of jitter on a busy box, and a shorter gap
// splits fast frames. Never more than 20 ms either, so that a slow line does
// not stretch every poll cycle; below about 1000 baud, where two character
// times exceed that, two character times it is, or every byte would be a frame.
int ULinkPortSerial::frameGapMs(const PortSettings &settings)
{
    const double charMs = settings.bitsPerChar() * 1000.0 / std::max(settings.baudRate, 1);
    const int gap = std::clamp(static_cast<int>(std::ceil(3.5 * charMs)), 5, 20);
    return std::max(gap, static_cast<int>(std::ceil(2 * charMs)));
}

bool ULinkPortSerial::setup(const std::string &text)
{
    SerialSetup s;
    if (!parseSetupText(text, &s))
        return false;
    QMutexLocker lock(&m_mutex);
    const QString device = QStringLiteral("/dev/ttyO%1").arg(s.ttyNumber);
    m_velorCom3 = isVELOR_COM3(device);
    if (m_velorCom3)
        s.mode = LINE_RS485;
    m_setup = s;
    m_device = lumbra::boxPath(device);
    if (!openDevice())
        return false;
    zlog_info(g_zlog, "serial par:%s %s mode:%d new485:%d", m_device.toLocal8Bit().constData(),
              m_serial->settings().toText().toLocal8Bit().constData(), m_setup.mode, m_useNew485 ? 1 : 0);
    return true;
}

// Caller holds m_mutex.
bool ULinkPortSerial::openDevice()
{
    m_serial.reset();
    m_useNew485 = false;
    m_rtsDirection = false;
    auto serial = std::make_unique<Posix_QextSerialPort>(m_device, m_setup.settings);
    // Keep what the line can do, so a reopen does not warn about the same values again.
    m_setup.settings = serial->settings();
    if (!serial->open(QIODevice::ReadWrite))
        return false;
    const bool rs485 = m_setup.mode == LINE_RS485;
    // On VELOR's COM3 we drive RTS ourselves, so the kernel must keep its hands off it.
    const int kernelMode = m_velorCom3 ? LINE_RS232 : m_setup.mode;
    m_useNew485 = serial->set422Or485Flag(kernelMode) && rs485 && !m_velorCom3;
    if (rs485 && !m_useNew485) {
        // Start in the receive direction. A line without modem control (a pty,
        // a converter that switches by itself) is sent on as it is.
        m_rtsDirection = serial->hasModemControl() && serial->setRts(false);
        zlog_info(g_zlog, "%s: RS-485 direction not switched by the kernel, %s",
                  m_device.toLocal8Bit().constData(),
                  m_rtsDirection ? "driven through RTS" : "no RTS control either, sending as is");
    }
    m_serial = std::move(serial);
    return true;
}

// Caller holds m_mutex.
bool ULinkPortSerial::ready() const
{
    if (m_serial) {
        m_closedReported = false;
        return true;
    }
    // One line per outage: the link thread asks on every turn.
    if (!m_closedReported)
        zlog_error(g_zlog, "serial port %s is not open",
                   m_device.isEmpty() ? "(never set up)" : m_device.toLocal8Bit().constData());
    m_closedReported = true;
    return false;
}

void ULinkPortSerial::setReplyPieces(bool pieces)
{
    QMutexLocker lock(&m_mutex);
    m_pieces = pieces;
}

int ULinkPortSerial::Send(const char *data, int len)
{
    QMutexLocker lock(&m_mutex);
    if (!ready())
        return -1;
    if (!data || len <= 0)
        return 0;
    if (m_pieces && m_lastReceived.isValid()) {
        const qint64 silenceNs =
            static_cast<qint64>(3.5 * m_serial->settings().bitsPerChar() * 1e9 / std::max(m_serial->settings().baudRate, 1));
        const qint64 left = silenceNs - m_lastReceived.nsecsElapsed();
        if (left > 0)
            QThread::usleep(static_cast<unsigned long>((left + 999) / 1000));
    }
    if (m_rtsDirection)
        m_serial->setRts(true);
    const qint64 written = m_serial->write(data, len);
    const bool drained = written == len && (m_useNew485 || m_serial->writeWait());
    if (m_rtsDirection)
        m_serial->setRts(false);
    // The serial layer has logged what went wrong.
    return drained ? len : -1;
}

int ULinkPortSerial::Recv(QByteArray &buffer, int timeoutMs)
{
    QMutexLocker lock(&m_mutex);
    if (!ready())
        return -1;
    const int first = m_serial->pollReadable(timeoutMs);
    if (first <= 0)
        return first;
    if (!m_pieces)
        return gatherFrame(buffer, timeoutMs);
    char chunk[kRecvChunk];
    const qint64 n = m_serial->read(chunk, sizeof chunk);
    if (n > 0) {
        buffer.append(chunk, static_cast<int>(n));
        m_lastReceived.start();
    }
    return static_cast<int>(n);
}

// Caller holds m_mutex and has seen the first byte arrive.
int ULinkPortSerial::gatherFrame(QByteArray &buffer, int timeoutMs)
{
    const int gap = frameGapMs(m_serial->settings());
    const qint64 limit = std::max(timeoutMs, kMinGatherMs);
    QElapsedTimer clock;
    clock.start();
    int total = 0;
    char chunk[kRecvChunk];
    for (;;) {
        const qint64 n = m_serial->read(chunk, sizeof chunk);
        if (n <= 0)
            return total > 0 ? total : static_cast<int>(n);
        buffer.append(chunk, static_cast<int>(n));
        total += static_cast<int>(n);
        // A failure while waiting out the gap ends the frame; the next call reports it.
        if (clock.elapsed() >= limit || m_serial->pollReadable(gap) <= 0)
            return total;
    }
}

int ULinkPortSerial::Recv(char *data, int maxLen)
{
    QMutexLocker lock(&m_mutex);
    if (!ready())
        return -1;
    if (!data || maxLen <= 0)
        return 0;
    return static_cast<int>(m_serial->read(data, maxLen));
}

int ULinkPortSerial::Recv_NoTimeOut(char *data, int len)
{
    QMutexLocker lock(&m_mutex);
    if (!ready())
        return -1;
    int count = 0;
    while (data && count < len) {
        const qint64 available = m_serial->bytesAvailable();
        if (available <= 0)
            break;
        const qint64 n = m_serial->read(data + count, std::min<qint64>(available, len - count));
        if (n <= 0)
            return count > 0 ? count : static_cast<int>(n);
        count += static_cast<int>(n);
        if (count < len)
            unitTool::delay_ms(kNoTimeoutPauseMs);
    }
    return count;
}

int ULinkPortSerial::Reset()
{
    QMutexLocker lock(&m_mutex);
    if (m_device.isEmpty()) {
        zlog_error(g_zlog, "serial port reset before set-up");
        return -1;
    }
    zlog_info(g_zlog, "serial port %s reopening", m_device.toLocal8Bit().constData());
    return openDevice() ? 1 : -1;
}

int ULinkPortSerial::commStatus()
{
    QMutexLocker lock(&m_mutex);
    return m_serial && m_serial->isOpen() ? 1 : 0;
}

void ULinkPortSerial::flush_clear()
{
    QMutexLocker lock(&m_mutex);
    if (m_serial)
        m_serial->flushInput();
}

void ULinkPortSerial::shutdown()
{
    QMutexLocker lock(&m_mutex);
    m_serial.reset();
}

int ULinkPortSerial::lineMode() const
{
    QMutexLocker lock(&m_mutex);
    return m_setup.mode;
}

bool ULinkPortSerial::useNew485() const
{
    QMutexLocker lock(&m_mutex);
    return m_useNew485;
}
