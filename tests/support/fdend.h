// One end of a byte channel (a pty, a socket) driven with plain POSIX I/O,
// to play the device or client on the other side of the code under test.
#pragma once

#include "device_comm/serialport/fdhandle.h"

#include <QByteArray>
#include <QString>

#include <netinet/in.h>

namespace lumbra::test {

// 127.0.0.1:port.
sockaddr_in loopback(int port);
// Binds fd to a free loopback port and gives the port, -1 on failure.
int bindLoopback(int fd);

class FdEnd {
public:
    // Opens a device path raw and non-blocking.
    explicit FdEnd(const QString &path);
    // Takes over an open descriptor.
    explicit FdEnd(int fd);
    bool ok() const { return m_fd.valid(); }
    int fd() const { return m_fd.get(); }
    // Writes every byte; false when the channel refused some.
    bool write(const QByteArray &bytes);
    // What arrived until want bytes were in or timeoutMs passed.
    QByteArray read(int want, int timeoutMs);
    void close() { m_fd.reset(); }

private:
    FdHandle m_fd;
};

// A TCP port on loopback that nothing listens on right now.
int freeTcpPort();

// A TCP connection to 127.0.0.1:port; !ok() when refused.
FdEnd tcpConnect(int port);

// A listening TCP socket on a free loopback port.
class TcpListener {
public:
    TcpListener();
    int port() const { return m_port; }
    // The next client within timeoutMs, or an end that is !ok().
    FdEnd accept(int timeoutMs);

private:
    FdHandle m_fd;
    int m_port = -1;
};

// A UDP socket on a free loopback port.
class UdpPeer {
public:
    UdpPeer();
    int port() const { return m_port; }
    bool sendTo(int port, const QByteArray &datagram);
    // One datagram within timeoutMs (empty on time-out); its sender's port
    // goes to *fromPort.
    QByteArray receive(int timeoutMs, int *fromPort = nullptr);

private:
    FdHandle m_fd;
    int m_port = -1;
};

}  // namespace lumbra::test
