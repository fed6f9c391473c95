#include "ulinkfreeporttcpclient.h"

#include "generalFunc/globals.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace {


// Connects with a time-out; -1 and errno on failure. The socket stays
// non-blocking: sends wait for room with a time-out of their own.
int connectWithin(const lumbra::net::SockAddr &addr, int timeoutMs)
{
    FdHandle fd(::socket(addr.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd.valid())
        return -1;
    if (::connect(fd.get(), addr.get(), addr.len) != 0) {
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
    lumbra::net::SockAddr addr;
    if (!lumbra::net::parseSetupText(text, &peer, &addr))
        return false;
    QMutexLocker lock(&m_mutex);
    m_peer = peer;
    m_peerAddr = addr;
    connectPeer();
    return true;
}

// Called with the mutex held.
bool ULinkFreePortTcpClient::connectPeer()
{
    m_fd.reset(connectWithin(m_peerAddr, kConnectTimeoutMs));
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
    int n = lumbra::net::sendAll(m_fd.get(), data, len, sendWaitMs());
    if (n < 0 && m_fd.valid()) {
        // Part of the bytes may have gone: the stream is out of step, so
        // the script starts again on a fresh connection (Reset).
        zlog_info(g_zlog, "free port send to %s:%u failed:%s", m_peer.address.toString().toLocal8Bit().constData(),
                  m_peer.port, std::strerror(errno));
        m_fd.reset();
    }
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
