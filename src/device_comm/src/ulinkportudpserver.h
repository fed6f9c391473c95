// A slave link's UDP port (Ethernet links other than TCP, slave). On the
// link thread's event loop each datagram goes to the client-data callback
// and its reply back to that datagram's sender; used directly, Recv and
// Send talk with the device that spoke last.
#pragma once

#include "netsocket.h"
#include "ulinkport.h"

class QUdpSocket;

class ULinkPortUdpServer : public ULinkPort {
    Q_OBJECT
public:
    explicit ULinkPortUdpServer(QObject *parent = nullptr);
    ~ULinkPortUdpServer() override;

    // text is "<local ip>:<port>"; 0.0.0.0 listens on every interface.
    bool setup(const std::string &text) override;
    // Waits up to timeoutMs for a datagram and appends every one waiting;
    // their sender becomes the peer that Send answers. 0 when none came.
    int Recv(QByteArray &buffer, int timeoutMs) override;
    // One datagram to the device that spoke last; 0 while none has.
    int Send(const char *data, int len) override;
    int commStatus() override;
    void shutdown() override;

    bool initSocket();

private slots:
    // Hands each datagram to the client-data callback and sends its reply
    // back to that datagram's sender.
    void onSocketReadyRead();

private:
    QUdpSocket *m_socket = nullptr;
    lumbra::net::Endpoint m_local;
    lumbra::net::Endpoint m_lastPeer;
    bool m_havePeer = false;
};
