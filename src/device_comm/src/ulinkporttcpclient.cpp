#include "ulinkporttcpclient.h"

#include "generalFunc/globals.h"

#include <QTcpSocket>

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
    m_socket->connectToHost(m_peer.address, m_peer.port);
    m_socket->waitForConnected(kSetupConnectWaitMs);
    m_setUp = true;
    return true;
}

bool ULinkPortTcpClient::connecting() const
{
    auto s = m_socket->state();
    return s == QAbstractSocket::HostLookupState || s == QAbstractSocket::ConnectingState;
}

int ULinkPortTcpClient::Recv(QByteArray &buffer, int timeoutMs)
{
    if (!m_socket)
        return -1;
    if (connecting()) {
        m_socket->waitForConnected(timeoutMs);
        return 0;
    }
    if (m_socket->state() != QAbstractSocket::ConnectedState)
        return -1;
    // Qt only learns of new bytes (or of a closed peer) inside a wait when
    // there is no event loop, so even a zero time-out has to ask.
    if (m_socket->bytesAvailable() == 0)
        m_socket->waitForReadyRead(timeoutMs);
    QByteArray got = m_socket->readAll();
    if (got.isEmpty())
        return m_socket->state() == QAbstractSocket::ConnectedState ? 0 : -1;
    buffer.append(got);
    return got.size();
}

int ULinkPortTcpClient::Send(const char *data, int len)
{
    if (!m_socket || !data || len < 0)
        return -1;
    if (connecting()) {
        m_socket->waitForConnected(0);
        if (connecting())
            return 0;
    }
    if (m_socket->state() != QAbstractSocket::ConnectedState)
        return -1;
    qint64 n = m_socket->write(data, len);
    m_socket->flush();
    return static_cast<int>(n);
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
    m_socket->connectToHost(m_peer.address, m_peer.port);
    if (!m_socket->waitForConnected(kConnectWaitMs))
        zlog_info(g_zlog, "tcp connect %s:%u failed:%s", m_peer.address.toString().toLocal8Bit().constData(),
                  m_peer.port, m_socket->errorString().toLocal8Bit().constData());
    return 0;
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
    m_socket->disconnectFromHost();
    m_socket->abort();
}
