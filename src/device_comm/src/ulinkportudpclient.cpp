#include "ulinkportudpclient.h"

#include "udpdatagrams.h"

#include "generalFunc/globals.h"

#include <QUdpSocket>

ULinkPortUdpClient::ULinkPortUdpClient(QObject *parent) : ULinkPort(PORT_UDP_CLIENT, parent)
{
}

ULinkPortUdpClient::~ULinkPortUdpClient() = default;

bool ULinkPortUdpClient::setup(const std::string &text)
{
    if (!lumbra::net::parseSetupText(text, &m_peer))
        return false;
    if (!m_socket) {
        m_socket = new QUdpSocket(this);
        const bool v6 = m_peer.address.protocol() == QAbstractSocket::IPv6Protocol;
        if (!m_socket->bind(QHostAddress(v6 ? QHostAddress::AnyIPv6 : QHostAddress::AnyIPv4), 0)) {
            zlog_error(g_zlog, "udp bind error:%s", m_socket->errorString().toLocal8Bit().constData());
            return false;
        }
    }
    return true;
}

bool ULinkPortUdpClient::checkConnect() const
{
    return m_socket && m_socket->state() == QAbstractSocket::BoundState;
}

int ULinkPortUdpClient::Recv(QByteArray &buffer, int timeoutMs)
{
    if (!checkConnect())
        return -1;
    int n = lumbra::net::readDatagrams(m_socket, buffer, timeoutMs, nullptr);
    return n > 0 ? n : -1;
}

int ULinkPortUdpClient::Send(const char *data, int len)
{
    if (!checkConnect() || !data || len < 0)
        return -1;
    return static_cast<int>(m_socket->writeDatagram(data, len, m_peer.address, m_peer.port));
}

int ULinkPortUdpClient::commStatus()
{
    return checkConnect() ? 1 : 0;
}

void ULinkPortUdpClient::shutdown()
{
    if (m_socket)
        m_socket->close();
}
