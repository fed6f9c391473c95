#include "ulinkporttcpclient.h"

#include "generalFunc/globals.h"

#include <QTcpSocket>

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

namespace {

const int kSetupConnectWaitMs = 1;
const int kDisconnectWaitMs = 3000;
const int kConnectWaitMs = 30000;

}  // namespace

ULinkPortTcpClient::ULinkPortTcpClient(QObject *parent) : ULinkPort(PORT_TCP_CLIENT, parent)
{
}

ULinkPortTcpClient::~ULinkPortTcpClient() = default;

bool ULinkPortTcpClient::setup(const std::string &text)
{
    if (!lumbra::net::parseSetupText(text, &m_peer))
        return false;
    if (!m_socket)
        m_socket = new QTcpSocket(this);
    if (m_socket->state() == QAbstractSocket::ConnectedState) {
        m_socket->disconnectFromHost();
        if (m_socket->state() != QAbstractSocket::UnconnectedState)
            m_socket->waitForDisconnected(kConnectWaitMs);
    }
    m_socket->abort();  // a half-made connection to the old peer is of no use
    startConnect();
    finishConnect(kSetupConnectWaitMs);
    m_setUp = true;
    return true;
}

bool ULinkPortTcpClient::connecting() const
{
    auto s = m_socket->state();
    return m_pending.valid() || s == QAbstractSocket::HostLookupState || s == QAbstractSocket::ConnectingState;
}

// QTcpSocket::waitForConnected gives the attempt up when its time runs out,
// and on a slow CPU even a 1 ms wait runs out before Qt has polled once. So
// the attempt runs on a socket of our own, which Qt takes over once it stands.
void ULinkPortTcpClient::startConnect()
{
    m_pending.reset();
    m_connectError = 0;
    lumbra::net::SockAddr addr;
    lumbra::net::toSockaddr(m_peer, &addr);
    FdHandle fd(::socket(addr.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.valid() && (::connect(fd.get(), addr.get(), addr.len) == 0 || errno == EINPROGRESS))
        m_pending = std::move(fd);
    else
        m_connectError = errno;
}

bool ULinkPortTcpClient::finishConnect(int timeoutMs)
{
    if (!m_pending.valid())  // connected already, or failed
        return m_socket->state() == QAbstractSocket::ConnectedState;
    pollfd p{m_pending.get(), POLLOUT, 0};
    if (::poll(&p, 1, timeoutMs < 0 ? 0 : timeoutMs) <= 0)
        return false;  // still under way
    int err = 0;
    socklen_t len = sizeof err;
    if (::getsockopt(m_pending.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0)
        err = errno;
    if (err == 0 && m_socket->setSocketDescriptor(m_pending.get())) {
        m_pending.release();
        return true;
    }
    m_connectError = err;
    m_pending.reset();
    return false;
}

int ULinkPortTcpClient::Recv(QByteArray &buffer, int timeoutMs)
{
    if (!m_socket)
        return -1;
    if (connecting()) {
        finishConnect(timeoutMs);
        return 0;
    }
    if (m_socket->state() != QAbstractSocket::ConnectedState)
        return -1;
    // Bytes Qt read on its own go first.
    const qint64 available = m_socket->bytesAvailable();
    if (available > 0) {
        const int at = buffer.size();
        buffer.resize(at + static_cast<int>(available));
        const qint64 got = m_socket->read(buffer.data() + at, available);
        buffer.resize(at + static_cast<int>(qMax<qint64>(got, 0)));
        return static_cast<int>(qMax<qint64>(got, 0));
    }
    // Then straight from the socket: one poll and one read a reply, where a
    // wait through Qt also asks for the size, for each of the hundreds of
    // requests a link sends a second.
    const int n = lumbra::net::recvSome(static_cast<int>(m_socket->socketDescriptor()), buffer, timeoutMs);
    if (n < 0)
        m_socket->abort();  // closed by the peer, or failed: not connected any more, as Qt would say
    return n;
}

int ULinkPortTcpClient::Send(const char *data, int len)
{
    if (!m_socket || !data || len < 0)
        return -1;
    if (connecting())
        finishConnect(0);
    if (connecting())
        return 0;
    if (m_socket->state() != QAbstractSocket::ConnectedState)
        return -1;
    // Straight to the socket, as replies are read: a write through Qt arms and
    // disarms its write notifier for each request.
    const int n = lumbra::net::sendAll(static_cast<int>(m_socket->socketDescriptor()), data, len, sendWaitMs());
    if (n < 0)
        m_socket->abort();  // the stream is out of step, or gone: Reset connects afresh
    return n;
}

int ULinkPortTcpClient::Reset()
{
    if (!m_socket)
        return -1;
    m_socket->disconnectFromHost();
    if (m_socket->state() == QAbstractSocket::ConnectedState ||
        m_socket->state() == QAbstractSocket::ClosingState)
        m_socket->waitForDisconnected(kDisconnectWaitMs);
    m_socket->abort();
    startConnect();
    if (!finishConnect(kConnectWaitMs))
        zlog_info(g_zlog, "tcp connect %s:%u failed:%s", m_peer.address.toString().toLocal8Bit().constData(),
                  m_peer.port, connectFailure().constData());
    return 0;
}

QByteArray ULinkPortTcpClient::connectFailure() const
{
    if (m_pending.valid())
        return std::strerror(ETIMEDOUT);
    if (m_connectError != 0)
        return std::strerror(m_connectError);
    return m_socket->errorString().toLocal8Bit();
}

int ULinkPortTcpClient::checkValid() const
{
    if (m_socket && m_socket->isValid())
        return 1;
    zlog_debug(g_zlog, "Socket is not valid.");
    return 0;
}

int ULinkPortTcpClient::checkStatus() const
{
    if (!m_setUp || !m_socket || !checkValid() || !m_socket->isOpen())
        return -1;
    return m_socket->state() == QAbstractSocket::ConnectedState ? 0 : -1;
}

int ULinkPortTcpClient::commStatus()
{
    return checkStatus() == 0 ? 1 : 0;
}

void ULinkPortTcpClient::shutdown()
{
    if (!m_socket)
        return;
    m_pending.reset();
    m_socket->disconnectFromHost();
    m_socket->abort();
}
