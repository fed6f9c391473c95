#include "ulinkportudpserver.h"

#include "udpdatagrams.h"

#include "generalFunc/globals.h"

#include <QUdpSocket>

ULinkPortUdpServer::ULinkPortUdpServer(QObject *parent) : ULinkPort(PORT_UDP_SERVER, parent)
{
}

ULinkPortUdpServer::~ULinkPortUdpServer() = default;

bool ULinkPortUdpServer::setup(const std::string &text)
{
    if (!lumbra::net::parseSetupText(text, &m_local))
        return false;
    return initSocket();
}

bool ULinkPortUdpServer::initSocket()
{
    delete m_socket;
    m_socket = new QUdpSocket(this);
    if (!m_socket->bind(m_local.address, m_local.port)) {
        zlog_error(g_zlog, "udp bind port error, port = %u (%s)", m_local.port,
                   m_socket->errorString().toLocal8Bit().constData());
        return false;
    }
    connect(m_socket, &QUdpSocket::readyRead, this, &ULinkPortUdpServer::onSocketReadyRead);
    return true;
}

void ULinkPortUdpServer::onSocketReadyRead()
{
    if (!m_clientDataCB || !m_clientDataContext)
        return;
    auto serve = reinterpret_cast<ClientDataFn>(m_clientDataCB);
    while (m_socket->hasPendingDatagrams()) {
        QByteArray request(static_cast<int>(qMax<qint64>(0, m_socket->pendingDatagramSize())), '\0');
        QHostAddress address;
        quint16 port = 0;
        qint64 n = m_socket->readDatagram(request.data(), request.size(), &address, &port);
        if (n < 0)
            return;
        request.truncate(static_cast<int>(n));
        QByteArray reply;
        serve(m_clientDataContext, request, &reply);
        if (!reply.isEmpty())
            m_socket->writeDatagram(reply, address, port);
    }
}

int ULinkPortUdpServer::Recv(QByteArray &buffer, int timeoutMs)
{
    if (!m_socket || m_socket->state() != QAbstractSocket::BoundState)
        return -1;
    lumbra::net::Endpoint from;
    int n = lumbra::net::readDatagrams(m_socket, buffer, timeoutMs, &from);
    if (n > 0) {
        m_lastPeer = from;
        m_havePeer = true;
    }
    return n;
}

int ULinkPortUdpServer::Send(const char *data, int len)
{
    if (!m_socket || m_socket->state() != QAbstractSocket::BoundState || !data || len < 0)
        return -1;
    if (!m_havePeer)
        return 0;
    return static_cast<int>(m_socket->writeDatagram(data, len, m_lastPeer.address, m_lastPeer.port));
}

int ULinkPortUdpServer::commStatus()
{
    return m_socket && m_socket->state() == QAbstractSocket::BoundState ? 1 : 0;
}

void ULinkPortUdpServer::shutdown()
{
    if (m_socket)
        m_socket->close();
}
