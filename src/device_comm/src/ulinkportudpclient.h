// A master link's UDP exchange with one device (Ethernet links other than
// TCP, master). Each Send is one datagram to the device.
#pragma once

#include "netsocket.h"
#include "ulinkport.h"

class QUdpSocket;

class ULinkPortUdpClient : public ULinkPort {
    Q_OBJECT
public:
    explicit ULinkPortUdpClient(QObject *parent = nullptr);
    ~ULinkPortUdpClient() override;

    // text is "<device ip>:<device port>"; binds to any free local port.
    bool setup(const std::string &text) override;
    // Waits up to timeoutMs for a datagram and appends every one waiting.
    // -1 when none came or the socket failed: a UDP device that does not
    // answer counts as a failed exchange.
    int Recv(QByteArray &buffer, int timeoutMs) override;
    // One datagram to the device; bytes sent or -1.
    int Send(const char *data, int len) override;
    int commStatus() override;
    void shutdown() override;

    bool checkConnect() const;

private:
    QUdpSocket *m_socket = nullptr;
    lumbra::net::Endpoint m_peer;
};
