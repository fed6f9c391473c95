#include "uclinktcpserver.h"

#include "generalFunc/globals.h"

#include <QThread>

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

const int kBacklog = 4;
const long kClientTimeoutUs = 100000;

bool setTimeout(int fd, int option)
{
    timeval tv{0, kClientTimeoutUs};
    return ::setsockopt(fd, SOL_SOCKET, option, &tv, sizeof tv) == 0;
}

}  // namespace

UClinkTcpServer::UClinkTcpServer(QObject *parent) : ULinkPort(PORT_RAW_TCP_SERVER, parent)
{
}

UClinkTcpServer::~UClinkTcpServer() = default;

bool UClinkTcpServer::setup(const std::string &text)
{
    lumbra::net::SockAddr addr;
    if (!lumbra::net::parseSetupText(text, &m_local, &addr))
        return false;
    QMutexLocker lock(&m_mutex);
    m_client.reset();
    FdHandle fd(::socket(addr.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    int on = 1;
    if (!fd.valid() || ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd.get(), addr.get(), addr.len) != 0 || ::listen(fd.get(), kBacklog) != 0) {
        zlog_error(g_zlog, "iec104 server cannot listen on %s:%s", text.c_str(), std::strerror(errno));
        return false;
    }
    m_listen = std::move(fd);
    zlog_info(g_zlog, "iec104 server listening on %s", text.c_str());
    return true;
}

int UClinkTcpServer::accept()
{
    QMutexLocker lock(&m_mutex);
    lumbra::net::SockAddr peer;
    peer.len = sizeof peer.storage;
    FdHandle fd(m_listen.valid() ? ::accept4(m_listen.get(), peer.get(), &peer.len, SOCK_CLOEXEC) : -1);
    if (!fd.valid())
        return m_client.valid() ? m_client.get() : -1;
    if (!setTimeout(fd.get(), SO_RCVTIMEO))
        zlog_info(g_zlog, "%s %d setsockopt recv error", __func__, __LINE__);
    if (!setTimeout(fd.get(), SO_SNDTIMEO))
        zlog_info(g_zlog, "%s %d setsockopt send error", __func__, __LINE__);
    zlog_info(g_zlog, "%s %d ip:%s conneted", __func__, __LINE__,
              lumbra::net::peerText(peer).toLocal8Bit().constData());
    m_client = std::move(fd);
    return m_client.get();
}

void UClinkTcpServer::dropClient()
{
    if (m_client.valid())
        zlog_info(g_zlog, "iec104 server: client gone");
    m_client.reset();
}

int UClinkTcpServer::Recv(QByteArray &buffer, int timeoutMs)
{
    QMutexLocker lock(&m_mutex);
    int n = lumbra::net::recvSome(m_client.get(), buffer, timeoutMs);
    if (n < 0)
        dropClient();
    return n;
}

int UClinkTcpServer::Send(const char *data, int len)
{
    QMutexLocker lock(&m_mutex);
    int n = lumbra::net::sendAll(m_client.get(), data, len);
    if (n < 0)
        dropClient();
    return n;
}

int UClinkTcpServer::Reset()
{
    QMutexLocker lock(&m_mutex);
    dropClient();
    return 0;
}

int UClinkTcpServer::commStatus()
{
    QMutexLocker lock(&m_mutex);
    if (!m_client.valid())
        return 0;
    // The peer sees both bytes; a dead peer answers the first with a reset,
    // which makes the second fail.
    ::send(m_client.get(), "0", 1, MSG_NOSIGNAL);
    QThread::msleep(100);
    return ::send(m_client.get(), "1", 1, MSG_NOSIGNAL) == 1 ? 1 : 0;
}

void UClinkTcpServer::shutdown()
{
    QMutexLocker lock(&m_mutex);
    m_client.reset();
    m_listen.reset();
}
