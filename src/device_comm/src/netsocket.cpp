#include "netsocket.h"

#include "generalFunc/globals.h"

#include <QElapsedTimer>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>

namespace lumbra::net {

namespace {

// "[::1]" as a URL writes it, "::1" as a link file may.
QString withoutBrackets(const QString &host)
{
    if (host.size() >= 2 && host.startsWith('[') && host.endsWith(']'))
        return host.mid(1, host.size() - 2);
    return host;
}

uint32_t scopeIndex(const QHostAddress &address)
{
    const QString scope = address.scopeId();
    bool numeric = false;
    const uint32_t n = scope.toUInt(&numeric);
    if (numeric || scope.isEmpty())
        return n;
    return ::if_nametoindex(scope.toLocal8Bit().constData());
}

}  // namespace

// An IPv6 literal is made of colons, so only the last one can end it.
bool parseSetupText(const std::string &text, Endpoint *out)
{
    const QString whole = QString::fromStdString(text).trimmed();
    const int colon = whole.lastIndexOf(':');
    bool portOk = false;
    const quint16 port = colon > 0 ? whole.mid(colon + 1).trimmed().toUShort(&portOk, 10) : 0;
    QHostAddress address;
    if (colon <= 0 || !portOk || !address.setAddress(withoutBrackets(whole.left(colon).trimmed()))) {
        zlog_error(g_zlog, "net setup failed:%s (want <ip address>:<port>)", text.c_str());
        return false;
    }
    out->address = address;
    out->port = port;
    return true;
}

bool parseSetupText(const std::string &text, Endpoint *out, SockAddr *addr)
{
    Endpoint ep;
    if (!parseSetupText(text, &ep) || !toSockaddr(ep, addr))
        return false;
    *out = ep;
    return true;
}

bool toSockaddr(const Endpoint &ep, SockAddr *out)
{
    *out = SockAddr{};
    if (ep.address.protocol() == QAbstractSocket::IPv4Protocol) {
        auto *in = reinterpret_cast<sockaddr_in *>(&out->storage);
        in->sin_family = AF_INET;
        in->sin_port = htons(ep.port);
        in->sin_addr.s_addr = htonl(ep.address.toIPv4Address());
        out->len = sizeof(sockaddr_in);
        return true;
    }
    if (ep.address.protocol() == QAbstractSocket::IPv6Protocol) {
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&out->storage);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(ep.port);
        const Q_IPV6ADDR ip = ep.address.toIPv6Address();
        std::memcpy(&in6->sin6_addr, ip.c, sizeof in6->sin6_addr);
        in6->sin6_scope_id = scopeIndex(ep.address);
        out->len = sizeof(sockaddr_in6);
        return true;
    }
    return false;
}

int recvSome(int fd, QByteArray &buffer, int timeoutMs)
{
    if (fd < 0)
        return -1;
    // Without a wait the read alone tells whether anything came: one system
    // call less for the look before each request.
    if (timeoutMs > 0) {
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, timeoutMs);
        if (ready < 0)
            return errno == EINTR ? 0 : -1;
        if (ready == 0)
            return 0;
    }
    char chunk[4096];
    ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 0;
    if (n <= 0)
        return -1;
    buffer.append(chunk, static_cast<int>(n));
    return static_cast<int>(n);
}

int sendAll(int fd, const char *data, int len, int timeoutMs)
{
    if (fd < 0 || !data || len < 0)
        return -1;
    const int flags = MSG_NOSIGNAL | (timeoutMs >= 0 ? MSG_DONTWAIT : 0);
    QElapsedTimer clock;
    clock.start();
    int done = 0;
    while (done < len) {
        ssize_t n = ::send(fd, data + done, static_cast<size_t>(len - done), flags);
        if (n > 0) {
            done += static_cast<int>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && timeoutMs >= 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            const qint64 left = timeoutMs - clock.elapsed();
            pollfd p{fd, POLLOUT, 0};
            const int ready = left > 0 ? ::poll(&p, 1, static_cast<int>(left)) : 0;
            if (ready > 0 || (ready < 0 && errno == EINTR))
                continue;
            errno = ready == 0 ? ETIMEDOUT : errno;
            return -1;
        }
        // A blocking socket's own send time-out ends here too: the caller resets.
        return -1;
    }
    return done;
}

QString peerText(const SockAddr &addr)
{
    char text[INET6_ADDRSTRLEN] = "?";
    if (addr.family() == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(&addr.storage)->sin_addr, text, sizeof text);
    else if (addr.family() == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(&addr.storage)->sin6_addr, text, sizeof text);
    return QString::fromLatin1(text);
}

}  // namespace lumbra::net
