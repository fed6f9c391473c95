// What the network ports share: the "<address>:<port>" set-up text and the
// plain-socket calls of the ports that are driven from several threads and
// so cannot use Qt's thread-bound sockets.
#pragma once

#include <QByteArray>
#include <QHostAddress>

#include <sys/socket.h>

#include <string>

namespace lumbra::net {

struct Endpoint {
    QHostAddress address;
    quint16 port = 0;
};

// A socket address of either family, as the socket calls take it.
struct SockAddr {
    sockaddr_storage storage{};
    socklen_t len = 0;

    int family() const { return storage.ss_family; }
    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&storage); }
    sockaddr *get() { return reinterpret_cast<sockaddr *>(&storage); }
};

// Splits text at its last ":" into an IPv4 or IPv6 literal (an IPv6 one
// may stand in [brackets]) and a decimal 16-bit port. False, with a log line
// naming the text, for anything else.
bool parseSetupText(const std::string &text, Endpoint *out);
// The same for the plain-socket ports, which also need the socket address.
bool parseSetupText(const std::string &text, Endpoint *out, SockAddr *addr);

// The socket address of ep; false when ep holds no IP address.
bool toSockaddr(const Endpoint &ep, SockAddr *out);

// Waits up to timeoutMs for fd to turn readable, then appends what one read
// gives. Bytes appended; 0 on time-out; -1 when the peer closed or the
// socket failed.
int recvSome(int fd, QByteArray &buffer, int timeoutMs);
// Writes all len bytes (never raising SIGPIPE); len, or -1 on failure. With
// timeoutMs >= 0 it gives up (-1, errno ETIMEDOUT) once that much time has
// passed with bytes still unsent, so a peer that stops reading cannot hold
// the caller; with a negative one it blocks as the socket does.
int sendAll(int fd, const char *data, int len, int timeoutMs = -1);
// The peer's address as text, for log lines.
QString peerText(const SockAddr &addr);

}  // namespace lumbra::net
