// A master link's TCP connection to its device ("Ethernet/TCP", master).
// Built on QTcpSocket and used only from the link thread, through the
// blocking waitFor* calls, so it needs no event loop.
#pragma once

#include "netsocket.h"
#include "device_comm/serialport/fdhandle.h"
#include "ulinkport.h"

class QTcpSocket;

class ULinkPortTcpClient : public ULinkPort {
    Q_OBJECT
public:
    explicit ULinkPortTcpClient(QObject *parent = nullptr);
    ~ULinkPortTcpClient() override;

    // text is "<ip>:<port>". Starts connecting and returns at once; the
    // connection completes during the next Send/Recv/Reset.
    bool setup(const std::string &text) override;
    // Connected: waits up to timeoutMs for data and appends it. While the
    // connection is still being made it waits for that instead and gives 0.
    // -1 once the peer has gone.
    int Recv(QByteArray &buffer, int timeoutMs) override;
    // Connected: the bytes written; connecting: 0; otherwise -1.
    int Send(const char *data, int len) override;
    // Drops the connection and connects again, waiting up to 30 s; 0 when a
    // socket exists (whether or not the peer took the call), else -1.
    int Reset() override;
    // 1 while connected.
    int commStatus() override;
    void shutdown() override;

    // 0 when set up, valid, open and connected; -1 otherwise.
    int checkStatus() const;
    // 1 when the socket is valid.
    int checkValid() const;

private:
    bool connecting() const;
    void startConnect();
    // Hands the socket to Qt once the kernel reports the connection made,
    // waiting up to timeoutMs for that; true when connected. A time-out
    // leaves the attempt running.
    bool finishConnect(int timeoutMs);
    // Why the last attempt did not connect, for the log.
    QByteArray connectFailure() const;

    QTcpSocket *m_socket = nullptr;  // child of this port, so it follows MoveToThread
    lumbra::net::Endpoint m_peer;
    bool m_setUp = false;
    FdHandle m_pending;  // our own socket while its connect is under way
    int m_connectError = 0;  // errno of our own attempt's failure, 0 for none
};
