#include "ulinkportcan.h"

#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"

#include <QString>
#include <QStringList>

#include <linux/can.h>
#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kIdBytes = 4;
constexpr int kMaxData = 8;
constexpr int kBufferFullWaitMs = 1000;
// A bus that never falls silent must not hold the link thread for ever; what
// is left waits for the next call.
constexpr int kMaxFramesPerRecv = 1024;

// The name goes into a shell command and into ifr_name, so only plain names
// that fit there get through.
bool plainInterfaceName(const QString &name)
{
    if (name.isEmpty() || name.size() >= IFNAMSIZ)
        return false;
    return std::all_of(name.begin(), name.end(), [](QChar c) {
        return c.unicode() < 128 && (c.isLetterOrNumber() || c == '_' || c == '.' || c == '-');
    });
}

bool parseSetupText(const std::string &text, std::string *name, int *bitrate)
{
    const QStringList parts = QString::fromStdString(text).split(':', Qt::SkipEmptyParts);
    bool ok = false;
    const int rate = parts.size() >= 2 ? parts[1].toInt(&ok) : 0;
    if (parts.size() < 2 || !plainInterfaceName(parts[0]) || !ok || rate <= 0) {
        zlog_error(g_zlog, "can setup failed:%s", text.c_str());
        return false;
    }
    *name = parts[0].toStdString();
    *bitrate = rate;
    return true;
}

void putId(char *out, canid_t id)
{
    for (int i = 0; i < kIdBytes; ++i)
        out[i] = static_cast<char>(id >> (8 * (kIdBytes - 1 - i)));
}

}  // namespace

ULinkPortCAN::ULinkPortCAN(QObject *parent) : ULinkPort(PORT_CAN, parent)
{
}

ULinkPortCAN::~ULinkPortCAN() = default;

bool ULinkPortCAN::setup(const std::string &text)
{
    std::string name;
    int bitrate = 0;
    if (!parseSetupText(text, &name, &bitrate))
        return false;
    QMutexLocker lock(&m_mutex);
    // Kept even if opening fails, so that Reset can try again once the interface is there.
    m_interface = name;
    m_bitrate = bitrate;
    return openInterface();
}

// Caller holds m_mutex.
bool ULinkPortCAN::openInterface()
{
    // The interface is about to go down under it anyway.
    m_socket.reset();
    // Each ifconfig is tried twice so one failed call does not leave the bus
    // down; restart-ms brings the controller back by itself after a bus-off.
    const QString command =
        QStringLiteral("ifconfig %1 down || ifconfig %1 down; "
                       "ip link set %1 type can bitrate %2 restart-ms 1000 ;"
                       "ifconfig %1 up || ifconfig %1 up")
            .arg(QString::fromStdString(m_interface), QString::number(m_bitrate));
    unitTool::execute_system_command(command.toLocal8Bit().constData());

    // Close-on-exec, or every shell the gateway starts would hold the bus open.
    FdHandle sock(::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW));
    if (!sock.valid()) {
        zlog_info(g_zlog, "socket PF_CAN failed: %s", strerror(errno));
        zlog_error(g_zlog, "can socket create failed");
        return false;
    }
    zlog_info(g_zlog, "can fd:%d", sock.get());

    ifreq ifr {};
    std::strncpy(ifr.ifr_name, m_interface.c_str(), IFNAMSIZ - 1);
    if (::ioctl(sock.get(), SIOCGIFINDEX, &ifr) < 0) {
        zlog_info(g_zlog, "ioctl failed: %s", strerror(errno));
        zlog_error(g_zlog, "can ioctl failed");
        return false;
    }

    // Without this the kernel keeps bus faults to itself; a link that falls
    // silent would leave no trace of why.
    const can_err_mask_t errMask = CAN_ERR_MASK;
    if (::setsockopt(sock.get(), SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &errMask, sizeof errMask) < 0)
        zlog_warn(g_zlog, "can error frames not available: %s", strerror(errno));

    sockaddr_can addr {};
    addr.can_family = AF_CAN;
    addr.can_ifindex = ifr.ifr_ifindex;
    if (::bind(sock.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        zlog_error(g_zlog, "can bind failed: %s", strerror(errno));
        return false;
    }
    zlog_info(g_zlog, "can %s up at %d bit/s", m_interface.c_str(), m_bitrate);
    m_socket = std::move(sock);
    return true;
}

bool ULinkPortCAN::attachSocket(int fd)
{
    if (fd < 0)
        return false;
    QMutexLocker lock(&m_mutex);
    m_socket.reset(fd);
    return true;
}

int ULinkPortCAN::packFrame(const char *data, int len, can_frame *frame)
{
    if (!data || len < kIdBytes + 2)
        return -1;
    std::memset(frame, 0, sizeof *frame);
    canid_t id = 0;
    for (int i = 0; i < kIdBytes; ++i)
        id = (id << 8) | static_cast<unsigned char>(data[i]);
    // Standard identifiers are 11 bits; anything larger only fits an extended frame.
    if (id >= 0x800)
        id |= CAN_EFF_FLAG;
    frame->can_id = id;
    // Cut before narrowing to the length byte, or 260 bytes would pass as 4.
    const int dlc = std::min(len - kIdBytes, kMaxData);
    frame->can_dlc = static_cast<__u8>(dlc);
    std::memcpy(frame->data, data + kIdBytes, dlc);
    return dlc;
}

int ULinkPortCAN::Send(const char *data, int len)
{
    can_frame frame;
    if (packFrame(data, len, &frame) < 0)
        return -1;
    if (len - kIdBytes > kMaxData)
        zlog_info(g_zlog, "can send len:%d", len - kIdBytes);
    QMutexLocker lock(&m_mutex);
    if (!m_socket.valid())
        return -1;
    return writeFrame(frame);
}

// Caller holds m_mutex.
int ULinkPortCAN::writeFrame(const can_frame &frame)
{
    auto writeOnce = [&] {
        ssize_t n;
        do
            n = ::write(m_socket.get(), &frame, sizeof frame);
        while (n < 0 && errno == EINTR);
        return n;
    };
    ssize_t n = writeOnce();
    if (n < 0 && errno == ENOBUFS) {
        // The controller's queue is full, typically no one acking on the bus:
        // note the frame, give the queue one chance to drain, then try once more.
        const auto *bytes = reinterpret_cast<const unsigned char *>(&frame);
        char hex[2 * sizeof frame + 1];
        for (size_t i = 0; i < sizeof frame; ++i)
            std::snprintf(hex + 2 * i, 3, "%02X", bytes[i]);
        zlog_info(g_zlog, "%s", hex);
        pollfd pfd {m_socket.get(), POLLOUT, 0};
        ::poll(&pfd, 1, kBufferFullWaitMs);
        n = writeOnce();
    }
    if (n < 0) {
        zlog_info(g_zlog, "write: %s", strerror(errno));
        return -1;
    }
    return static_cast<int>(n);
}

int ULinkPortCAN::Recv(QByteArray &buffer, int timeoutMs)
{
    QMutexLocker lock(&m_mutex);
    if (!m_socket.valid())
        return -1;
    pollfd pfd {m_socket.get(), POLLIN, 0};
    const int ready = ::poll(&pfd, 1, std::max(timeoutMs, 0));
    if (ready < 0 && errno != EINTR) {
        zlog_error(g_zlog, "can poll failed: %s", strerror(errno));
        return -1;
    }
    if (ready <= 0)
        return 0;

    int appended = 0;
    for (int i = 0; i < kMaxFramesPerRecv; ++i) {
        can_frame frame;
        const ssize_t n = ::recv(m_socket.get(), &frame, sizeof frame, MSG_DONTWAIT);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (n <= 0) {
            // A CAN socket never reads 0; a socket pair does when its peer is gone.
            zlog_error(g_zlog, "can read failed: %s", n == 0 ? "peer closed" : strerror(errno));
            return appended > 0 ? appended : -1;
        }
        if (n != static_cast<ssize_t>(sizeof frame)) {
            zlog_error(g_zlog, "can read %d bytes, not a frame; dropped", static_cast<int>(n));
            continue;
        }
        if (frame.can_id & CAN_ERR_FLAG) {
            handle_err_frame(frame);
            continue;
        }
        printf_frame(frame);
        char record[kRecordSize] = {};
        putId(record, frame.can_id);
        const int dlc = std::min<int>(frame.can_dlc, kMaxData);
        record[kIdBytes] = static_cast<char>(dlc);
        std::memcpy(record + kIdBytes + 1, frame.data, dlc);
        buffer.append(record, kRecordSize);
        appended += kRecordSize;
    }
    return appended;
}

int ULinkPortCAN::Reset()
{
    QMutexLocker lock(&m_mutex);
    if (m_interface.empty()) {
        zlog_error(g_zlog, "can port reset before set-up");
        return -1;
    }
    zlog_info(g_zlog, "can port %s reopening", m_interface.c_str());
    return openInterface() ? 1 : -1;
}

int ULinkPortCAN::commStatus()
{
    QMutexLocker lock(&m_mutex);
    return m_socket.valid() ? 1 : 0;
}

void ULinkPortCAN::shutdown()
{
    QMutexLocker lock(&m_mutex);
    m_socket.reset();
}

void ULinkPortCAN::printf_frame(const can_frame &frame)
{
    char data[3 * kMaxData + 1] = {};
    const int dlc = std::min<int>(frame.can_dlc, kMaxData);
    for (int i = 0; i < dlc; ++i)
        std::snprintf(data + 3 * i, 4, "%02x ", frame.data[i]);
    zlog_debug(g_zlog, "%08x dlc = %d data = %s", frame.can_id & CAN_EFF_MASK, frame.can_dlc, data);
}

void ULinkPortCAN::handle_err_frame(const can_frame &frame)
{
    static const struct {
        canid_t bit;
        const char *name;
    } kClasses[] = {
        {CAN_ERR_TX_TIMEOUT, "CAN_ERR_TX_TIMEOUT"}, {CAN_ERR_LOSTARB, "CAN_ERR_LOSTARB"},
        {CAN_ERR_CRTL, "CAN_ERR_CRTL"},             {CAN_ERR_PROT, "CAN_ERR_PROT"},
        {CAN_ERR_TRX, "CAN_ERR_TRX"},               {CAN_ERR_ACK, "CAN_ERR_ACK"},
        {CAN_ERR_BUSOFF, "CAN_ERR_BUSOFF"},         {CAN_ERR_BUSERROR, "CAN_ERR_BUSERROR"},
        {CAN_ERR_RESTARTED, "CAN_ERR_RESTARTED"},
    };
    for (const auto &c : kClasses) {
        if (frame.can_id & c.bit)
            zlog_info(g_zlog, "%s", c.name);
    }
}
