// The IEC 60870-5-104 server port ("Ethernet/TCP", slave, an iec_104
// driver). Plain sockets: the link thread polls it through accept() each
// turn, and a controlling station holds one connection at a time.
#pragma once

#include "netsocket.h"
#include "ulinkport.h"

#include "device_comm/serialport/fdhandle.h"

#include <QMutex>

class UClinkTcpServer : public ULinkPort {
    Q_OBJECT
public:
    explicit UClinkTcpServer(QObject *parent = nullptr);
    ~UClinkTcpServer() override;

    // text is "<local ip>:<port>"; 0.0.0.0 listens on every interface.
    bool setup(const std::string &text) override;
    // Takes a waiting client, which replaces the current one (the station
    // reconnecting after a fault must not be locked out by its own dead
    // socket). The client's descriptor, or -1 while there is none.
    int accept() override;
    // From the client: bytes appended, 0 on time-out, -1 without a client
    // or when it left (it is then dropped).
    int Recv(QByteArray &buffer, int timeoutMs) override;
    int Send(const char *data, int len) override;
    // Drops the client; the server keeps listening.
    int Reset() override;
    // Probes the client with the bytes "0" and, 100 ms later, "1": 1 when
    // the second send went out, else 0.
    int commStatus() override;
    void shutdown() override;

private:
    void dropClient();

    QMutex m_mutex;
    FdHandle m_listen;
    FdHandle m_client;
    lumbra::net::Endpoint m_local;
};
