// What the network ports share: the "<address>:<port>" set-up text and the
// plain-socket calls of the ports that are driven from several threads and
// so cannot use Qt's thread-bound sockets.
#pragma once

#include <QByteArray>
#include <QHostAddress>

#include <netinet/in.h>

#include <string>

namespace lumbra::net {

struct Endpoint {
    QHostAddress address;
    quint16 port = 0;
};

// Splits text at ":" (empty parts dropped). False, with a log line naming
// the text, for fewer than two parts, an address that is not an IPv4/IPv6
// literal or a port that is not a decimal 16-bit number.
bool parseSetupText(const std::string &text, Endpoint *out);

// sockaddr for an IPv4 endpoint; false for anything else.
bool toSockaddr(const Endpoint &ep, sockaddr_in *out);
// parseSetupText for the plain-socket ports, which speak IPv4 only.
bool parseIPv4SetupText(const std::string &text, Endpoint *out, sockaddr_in *addr);

// Waits up to timeoutMs for fd to turn readable, then appends what one read
// gives. Bytes appended; 0 on time-out; -1 when the peer closed or the
// socket failed.
int recvSome(int fd, QByteArray &buffer, int timeoutMs);
// Writes all len bytes (never raising SIGPIPE); len, or -1 on failure.
int sendAll(int fd, const char *data, int len);
// The peer's address as text, for log lines.
QString peerText(const sockaddr_in &addr);

}  // namespace lumbra::net
