#include "fdend.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace lumbra::test {

sockaddr_in loopback(int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

int bindLoopback(int fd)
{
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0)
        return -1;
    return ntohs(a.sin_port);
}

namespace {

bool waitReadable(int fd, int timeoutMs)
{
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, timeoutMs) == 1;
}

}  // namespace

FdEnd::FdEnd(const QString &path)
    : m_fd(::open(path.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
{
}

FdEnd::FdEnd(int fd) : m_fd(fd)
{
    if (m_fd.valid())
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

bool FdEnd::write(const QByteArray &bytes)
{
    if (!m_fd.valid())
        return false;
    // send() keeps a closed socket from raising SIGPIPE; ptys need write().
    ssize_t n = ::send(m_fd.get(), bytes.constData(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK)
        n = ::write(m_fd.get(), bytes.constData(), bytes.size());
    return n == bytes.size();
}

QByteArray FdEnd::read(int want, int timeoutMs)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    QByteArray got;
    while (m_fd.valid() && got.size() < want) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || !waitReadable(m_fd.get(), static_cast<int>(left.count())))
            break;
        char buf[256];
        const ssize_t n = ::read(m_fd.get(), buf, std::min<size_t>(sizeof buf, want - got.size()));
        if (n <= 0)
            break;
        got.append(buf, static_cast<int>(n));
    }
    return got;
}

int freeTcpPort()
{
    FdHandle fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return fd.valid() ? bindLoopback(fd.get()) : -1;
}

FdEnd tcpConnect(int port)
{
    FdHandle fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in a = loopback(port);
    if (!fd.valid() || ::connect(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
        return FdEnd(-1);
    return FdEnd(fd.release());
}

TcpListener::TcpListener() : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    m_port = m_fd.valid() ? bindLoopback(m_fd.get()) : -1;
    if (m_port < 0 || ::listen(m_fd.get(), 4) != 0)
        m_port = -1;
}

FdEnd TcpListener::accept(int timeoutMs)
{
    if (m_port < 0 || !waitReadable(m_fd.get(), timeoutMs))
        return FdEnd(-1);
    return FdEnd(::accept4(m_fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

UdpPeer::UdpPeer() : m_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    m_port = m_fd.valid() ? bindLoopback(m_fd.get()) : -1;
}

bool UdpPeer::sendTo(int port, const QByteArray &datagram)
{
    sockaddr_in a = loopback(port);
    return ::sendto(m_fd.get(), datagram.constData(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&a),
                    sizeof a) == datagram.size();
}

QByteArray UdpPeer::receive(int timeoutMs, int *fromPort)
{
    if (!waitReadable(m_fd.get(), timeoutMs))
        return {};
    char buf[2048];
    sockaddr_in from{};
    socklen_t len = sizeof from;
    ssize_t n = ::recvfrom(m_fd.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
    if (n < 0)
        return {};
    if (fromPort)
        *fromPort = ntohs(from.sin_port);
    return QByteArray(buf, static_cast<int>(n));
}

}  // namespace lumbra::test
