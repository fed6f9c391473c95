#include "ulinkporttcpserver.h"

#include "generalFunc/globals.h"

#include <QTcpServer>
#include <QTcpSocket>

#include <utility>

namespace {

QByteArray peerOf(const QTcpSocket *s)
{
    return QString("%1:%2").arg(s->peerAddress().toString()).arg(s->peerPort()).toLocal8Bit();
}

}  // namespace

ULinkPortTcpServer::ULinkPortTcpServer(QObject *parent) : ULinkPort(PORT_TCP_SERVER, parent)
{
}

ULinkPortTcpServer::~ULinkPortTcpServer() = default;

bool ULinkPortTcpServer::setup(const std::string &text)
{
    if (!lumbra::net::parseSetupText(text, &m_local))
        return false;
    if (!m_server) {
        m_server = new QTcpServer(this);
        connect(m_server, &QTcpServer::newConnection, this, &ULinkPortTcpServer::tcpNewConnection);
    }
    m_server->close();  // a new set-up text moves the server; clients stay
    if (!m_server->listen(m_local.address, m_local.port)) {
        zlog_error(g_zlog, "tcp listen port error, port = %u (%s)", m_local.port,
                   m_server->errorString().toLocal8Bit().constData());
        return false;
    }
    zlog_info(g_zlog, "tcp server listening on %s", text.c_str());
    return true;
}

void ULinkPortTcpServer::tcpNewConnection()
{
    while (QTcpSocket *client = m_server->nextPendingConnection()) {
        if (m_clients.size() >= kMaxClients) {
            zlog_info(g_zlog, "tcp server: %d clients already, refusing %s", kMaxClients, peerOf(client).constData());
            client->abort();
            client->deleteLater();
            continue;
        }
        zlog_info(g_zlog, "tcp server: client %s connected", peerOf(client).constData());
        m_clients.append(client);
        connect(client, &QTcpSocket::readyRead, this, &ULinkPortTcpServer::dealClientRequest);
        connect(client, &QTcpSocket::disconnected, this, &ULinkPortTcpServer::clientDisconnect);
    }
}

void ULinkPortTcpServer::dealClientRequest()
{
    auto *client = qobject_cast<QTcpSocket *>(sender());
    if (!client || !client->isValid()) {
        zlog_debug(g_zlog, "Socket is not valid.");
        return;
    }
    QByteArray request = client->readAll();
    m_lastClient = client;
    if (!m_clientDataCB || !m_clientDataContext) {
        zlog_debug(g_zlog, "tcp server: no one serves requests, %d bytes dropped", request.size());
        return;
    }
    QByteArray reply;
    reinterpret_cast<ClientDataFn>(m_clientDataCB)(m_clientDataContext, request, &reply);
    if (!reply.isEmpty()) {
        client->write(reply);
        client->flush();
    }
}

void ULinkPortTcpServer::clientDisconnect()
{
    auto *client = qobject_cast<QTcpSocket *>(sender());
    if (!client)
        return;
    zlog_info(g_zlog, "tcp server: client %s left", peerOf(client).constData());
    m_clients.removeAll(client);
    if (m_lastClient == client)
        m_lastClient = nullptr;
    client->deleteLater();
}

int ULinkPortTcpServer::Recv(QByteArray &, int)
{
    return m_server && m_server->isListening() ? 0 : -1;
}

int ULinkPortTcpServer::Send(const char *data, int len)
{
    if (!data || len < 0)
        return -1;
    if (!m_lastClient)
        return 0;
    qint64 n = m_lastClient->write(data, len);
    m_lastClient->flush();
    return static_cast<int>(n);
}

int ULinkPortTcpServer::commStatus()
{
    return m_server && m_server->isListening() ? 1 : 0;
}

void ULinkPortTcpServer::shutdown()
{
    // abort() reports the disconnection at once, which edits m_clients.
    const QList<QTcpSocket *> clients = std::exchange(m_clients, {});
    for (QTcpSocket *client : clients)
        client->abort();
    m_lastClient = nullptr;
    if (m_server)
        m_server->close();
}
