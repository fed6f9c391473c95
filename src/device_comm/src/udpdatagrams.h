// Datagram reading shared by the UDP client and server ports.
#pragma once

#include "netsocket.h"

#include <QByteArray>

class QUdpSocket;

namespace lumbra::net {

// Waits up to timeoutMs for a datagram, then appends every datagram waiting
// to buffer. The sender of the last one goes to *from when from is given.
// Bytes appended (0 when nothing came), -1 when the socket failed.
int readDatagrams(QUdpSocket *socket, QByteArray &buffer, int timeoutMs, Endpoint *from);

}  // namespace lumbra::net
