// A slave link's TCP server ("Ethernet/TCP", slave, other than IEC 104).
// It lives on the link thread's event loop: every request of a client goes
// to the client-data callback, whose reply goes back to that client.
#pragma once

#include "netsocket.h"
#include "ulinkport.h"

#include <QList>

class QTcpServer;
class QTcpSocket;

class ULinkPortTcpServer : public ULinkPort {
    Q_OBJECT
public:
    // Clients beyond this are turned away: a small box must not let a
    // scanner open sockets without end.
    static const int kMaxClients = 8;

    explicit ULinkPortTcpServer(QObject *parent = nullptr);
    ~ULinkPortTcpServer() override;

    // text is "<local ip>:<port>"; 0.0.0.0 listens on every interface.
    bool setup(const std::string &text) override;
    // Requests reach the client-data callback, never Recv: 0 while
    // listening, -1 otherwise.
    int Recv(QByteArray &buffer, int timeoutMs) override;
    // To the client that spoke last; 0 while none has.
    int Send(const char *data, int len) override;
    // 1 while listening.
    int commStatus() override;
    void shutdown() override;

    int clientCount() const { return m_clients.size(); }

private slots:
    void tcpNewConnection();
    void dealClientRequest();
    void clientDisconnect();

private:
    QTcpServer *m_server = nullptr;
    QList<QTcpSocket *> m_clients;
    QTcpSocket *m_lastClient = nullptr;
    lumbra::net::Endpoint m_local;
};
