#include "netsocket.h"

#include "generalFunc/globals.h"

#include <QStringList>

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace lumbra::net {

bool parseSetupText(const std::string &text, Endpoint *out)
{
    const QStringList parts = QString::fromStdString(text).split(':', Qt::SkipEmptyParts);
    bool portOk = false;
    quint16 port = parts.size() >= 2 ? parts[1].trimmed().toUShort(&portOk, 10) : 0;
    QHostAddress address;
    if (parts.size() < 2 || !address.setAddress(parts[0].trimmed()) || !portOk) {
        zlog_error(g_zlog, "net setup failed:%s (want <ip address>:<port>)", text.c_str());
        return false;
    }
    out->address = address;
    out->port = port;
    return true;
}

bool toSockaddr(const Endpoint &ep, sockaddr_in *out)
{
    bool ok = false;
    quint32 ip = ep.address.toIPv4Address(&ok);
    if (!ok)
        return false;
    *out = sockaddr_in{};
    out->sin_family = AF_INET;
    out->sin_port = htons(ep.port);
    out->sin_addr.s_addr = htonl(ip);
    return true;
}

bool parseIPv4SetupText(const std::string &text, Endpoint *out, sockaddr_in *addr)
{
    Endpoint ep;
    if (!parseSetupText(text, &ep))
        return false;
    if (!toSockaddr(ep, addr)) {
        zlog_error(g_zlog, "net setup failed:%s (an IPv4 address is needed)", text.c_str());
        return false;
    }
    *out = ep;
    return true;
}

int recvSome(int fd, QByteArray &buffer, int timeoutMs)
{
    if (fd < 0)
        return -1;
    pollfd p{fd, POLLIN, 0};
    int ready = ::poll(&p, 1, timeoutMs < 0 ? 0 : timeoutMs);
    if (ready < 0)
        return errno == EINTR ? 0 : -1;
    if (ready == 0)
        return 0;
    char chunk[4096];
    ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 0;
    if (n <= 0)
        return -1;
    buffer.append(chunk, static_cast<int>(n));
    return static_cast<int>(n);
}

int sendAll(int fd, const char *data, int len)
{
    if (fd < 0 || !data || len < 0)
        return -1;
    int done = 0;
    while (done < len) {
        ssize_t n = ::send(fd, data + done, static_cast<size_t>(len - done), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        // The send time-out of a slow peer ends here too: the caller resets.
        if (n <= 0)
            return -1;
        done += static_cast<int>(n);
    }
    return done;
}

QString peerText(const sockaddr_in &addr)
{
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
    return QString::fromLatin1(text);
}

}  // namespace lumbra::net
