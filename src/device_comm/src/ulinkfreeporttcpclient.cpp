#include "ulinkfreeporttcpclient.h"

#include "generalFunc/globals.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

// Connects with a time-out and hands back a blocking socket; -1 and errno on failure.
int connectWithin(const sockaddr_in &addr, int timeoutMs)
{
    FdHandle fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd.valid())
        return -1;
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        if (errno != EINPROGRESS)
            return -1;
        pollfd p{fd.get(), POLLOUT, 0};
        int err = 0;
        socklen_t len = sizeof err;
        if (::poll(&p, 1, timeoutMs) != 1 || ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err) {
            errno = err ? err : ETIMEDOUT;
            return -1;
        }
    }
    ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    return fd.release();
}

}  // namespace

ULinkFreePortTcpClient::ULinkFreePortTcpClient(QObject *parent) : ULinkPort(PORT_TCP_CLIENT, parent)
{
}

ULinkFreePortTcpClient::~ULinkFreePortTcpClient() = default;

bool ULinkFreePortTcpClient::setup(const std::string &text)
{
    lumbra::net::Endpoint peer;
    sockaddr_in addr;
    if (!lumbra::net::parseIPv4SetupText(text, &peer, &addr))
        return false;
    QMutexLocker lock(&m_mutex);
    m_peer = peer;
    connectPeer();
    return true;
}

// Called with the mutex held.
bool ULinkFreePortTcpClient::connectPeer()
{
    sockaddr_in addr;
    lumbra::net::toSockaddr(m_peer, &addr);
    m_fd.reset(connectWithin(addr, kConnectTimeoutMs));
    if (!m_fd.valid()) {
        zlog_info(g_zlog, "free port connect %s:%u failed:%s", m_peer.address.toString().toLocal8Bit().constData(),
                  m_peer.port, std::strerror(errno));
        return false;
    }
    return true;
}

int ULinkFreePortTcpClient::Recv(QByteArray &buffer, int timeoutMs)
{
    QMutexLocker lock(&m_mutex);
    int n = lumbra::net::recvSome(m_fd.get(), buffer, timeoutMs);
    if (n < 0)
        m_fd.reset();
    return n;
}

int ULinkFreePortTcpClient::Send(const char *data, int len)
{
    QMutexLocker lock(&m_mutex);
    int n = lumbra::net::sendAll(m_fd.get(), data, len);
    if (n < 0)
        m_fd.reset();
    return n;
}

int ULinkFreePortTcpClient::Reset()
{
    QMutexLocker lock(&m_mutex);
    return connectPeer() ? 0 : -1;
}

int ULinkFreePortTcpClient::commStatus()
{
    QMutexLocker lock(&m_mutex);
    return m_fd.valid() ? 1 : 0;
}

void ULinkFreePortTcpClient::shutdown()
{
    QMutexLocker lock(&m_mutex);
    m_fd.reset();
}

void ULinkFreePortTcpClient::MoveToThread(QThread *)
{
    // A plain socket belongs to no thread.
}
