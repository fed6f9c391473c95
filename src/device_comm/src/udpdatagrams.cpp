#include "udpdatagrams.h"

#include <QUdpSocket>

namespace lumbra::net {

int readDatagrams(QUdpSocket *socket, QByteArray &buffer, int timeoutMs, Endpoint *from)
{
    if (!socket->hasPendingDatagrams())
        socket->waitForReadyRead(timeoutMs);
    int total = 0;
    while (socket->hasPendingDatagrams()) {
        qint64 size = socket->pendingDatagramSize();
        if (size < 0)
            break;
        QByteArray datagram(static_cast<int>(size), '\0');
        QHostAddress address;
        quint16 port = 0;
        qint64 n = socket->readDatagram(datagram.data(), size, &address, &port);
        if (n < 0)
            return total > 0 ? total : -1;
        buffer.append(datagram.constData(), static_cast<int>(n));
        total += static_cast<int>(n);
        if (from) {
            from->address = address;
            from->port = port;
        }
    }
    return total;
}

}  // namespace lumbra::net
