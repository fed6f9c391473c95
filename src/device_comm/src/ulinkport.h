// The transport a link talks through. The link thread only sees this
// interface; serial, network and CAN ports hide their handles behind it.
#pragma once

#include "device_comm/linkvalue.h"

#include <QByteArray>
#include <QObject>
#include <string>

class QThread;

// A QObject so that ports built on Qt sockets can live in the link thread.
class ULinkPort : public QObject {
    Q_OBJECT
public:
    // The link's communication type; the number is what the link thread computes.
    enum PortType : int {
        PORT_SERIAL_MASTER = 0,
        PORT_SERIAL_SLAVE = 1,
        PORT_UDP_SERVER = 2,
        PORT_UDP_CLIENT = 3,
        PORT_TCP_CLIENT = 4,
        PORT_TCP_SERVER = 5,     // Qt TCP server; the link thread runs an event loop for it
        PORT_CAN = 6,
        PORT_RAW_TCP_SERVER = 7, // IEC 60870-5-104
    };

    // What server ports call with each request from a client (the callback
    // registered through setClientDataCB, context first). A reply left in
    // *reply goes back to that client.
    using ClientDataFn = void (*)(void *context, const QByteArray &request, QByteArray *reply);

    explicit ULinkPort(PortType type, QObject *parent = nullptr);
    ~ULinkPort() override;

    PortType portType() const { return m_portType; }

    // Parses the set-up text and opens the transport; true on success, else
    // false after one log line saying why.
    virtual bool setup(const std::string &text) = 0;
    virtual void MoveToThread(QThread *thread);
    // Server ports hand data from their clients to callback (a ClientDataFn)
    // once both it and context are set.
    virtual void setClientDataCB(void *callback, void *context);
    virtual void setLinkPar(const LinkValue &link);
    // Bytes appended to buffer, 0 when nothing came within timeoutMs, negative on failure.
    virtual int Recv(QByteArray &buffer, int timeoutMs) = 0;
    // Bytes sent, negative on failure.
    virtual int Send(const char *data, int len) = 0;
    // Whether Recv may hand over a reply in pieces as they arrive, for a
    // driver that asks for the rest itself; ports that do not wait for the
    // end of a frame ignore it.
    virtual void setReplyPieces(bool pieces);
    // Reopens the transport: 1 done, 0 nothing to reopen, -1 failed.
    virtual int Reset();
    // 0 while there is no connection.
    virtual int commStatus();
    // Server ports: accept a waiting client; -1 when there is none.
    virtual int accept();
    virtual void flush_clear();
    virtual void setSupendFlag(bool suspended);
    virtual void shutdown() = 0;

    // The port for type, set up with text; null (with a log line) when the
    // type has no port here or the set-up failed.
    static ULinkPort *CreatePort(PortType type, const std::string &text);
    // Free-protocol links are driven from the script threads as well as their
    // own, so their TCP client is a plain socket; other types as CreatePort.
    static ULinkPort *CreateFreePort(PortType type, const std::string &text);
    // Shuts the port down and deletes it; null is ignored.
    static void ReleasePort(ULinkPort *port);

protected:
    // How long a send may wait for room in the socket before the port counts
    // as failed, so that a peer that stops reading cannot hold the link.
    int sendWaitMs() const { return m_linkPar.timeout1 > 0 ? m_linkPar.timeout1 : 1000; }

    LinkValue m_linkPar;
    void *m_clientDataCB = nullptr;
    void *m_clientDataContext = nullptr;
    bool m_suspended = false;

private:
    static ULinkPort *setUp(ULinkPort *port, const std::string &text);

    const PortType m_portType;
};
