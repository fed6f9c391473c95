// The TCP client of a free-protocol link: scripts move raw bytes through it
// from their own threads, so it is a plain socket under a mutex rather than
// a thread-bound QTcpSocket.
#pragma once

#include "netsocket.h"
#include "ulinkport.h"

#include "device_comm/serialport/fdhandle.h"

#include <QMutex>

class ULinkFreePortTcpClient : public ULinkPort {
    Q_OBJECT
public:
    // How long a connection attempt may take before the caller gets its
    // thread back.
    static const int kConnectTimeoutMs = 3000;

    explicit ULinkFreePortTcpClient(QObject *parent = nullptr);
    ~ULinkFreePortTcpClient() override;

    // text is "<ip>:<port>". A peer that is not there yet does not fail the
    // set-up: Reset connects later.
    bool setup(const std::string &text) override;
    int Recv(QByteArray &buffer, int timeoutMs) override;
    // Waits for room at most the link's reply time-out ("timeout1", 1 s
    // when unset); a peer that stops reading then costs the connection.
    int Send(const char *data, int len) override;
    // Connects again; 0 when connected, -1 otherwise.
    int Reset() override;
    // 1 while connected.
    int commStatus() override;
    void shutdown() override;
    void MoveToThread(QThread *thread) override;

private:
    bool connectPeer();

    QMutex m_mutex;
    FdHandle m_fd;
    lumbra::net::Endpoint m_peer;
    lumbra::net::SockAddr m_peerAddr;
};
