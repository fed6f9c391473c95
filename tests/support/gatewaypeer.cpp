#include "gatewaypeer.h"

#include <QElapsedTimer>
#include <QJsonDocument>

#include <nanomsg/nn.h>
#include <nanomsg/pair.h>

namespace lumbra::test {

GatewayPeer::GatewayPeer(const QString &url) : m_url(url)
{
    connect();
}

bool GatewayPeer::connect()
{
    m_socket.reset(nn_socket(AF_SP, NN_PAIR));
    return m_socket.valid() && nn_connect(m_socket.get(), m_url.toUtf8().constData()) >= 0;
}

bool GatewayPeer::send(const QByteArray &bytes, int timeoutMs)
{
    return m_socket.valid() &&
           nn_setsockopt(m_socket.get(), NN_SOL_SOCKET, NN_SNDTIMEO, &timeoutMs, sizeof timeoutMs) == 0 &&
           nn_send(m_socket.get(), bytes.constData(), static_cast<size_t>(bytes.size()), 0) == bytes.size();
}

QJsonObject GatewayPeer::receive(int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    for (int left = timeoutMs; left > 0 && m_socket.valid(); left = timeoutMs - static_cast<int>(t.elapsed())) {
        if (nn_setsockopt(m_socket.get(), NN_SOL_SOCKET, NN_RCVTIMEO, &left, sizeof left) < 0)
            break;
        char *buf = nullptr;
        const int len = nn_recv(m_socket.get(), &buf, NN_MSG, 0);
        if (len < 0)
            break;
        const QJsonDocument doc = QJsonDocument::fromJson(QByteArray(buf, len));
        nn_freemsg(buf);
        if (doc.isObject())
            return doc.object();
    }
    return QJsonObject();
}

QJsonObject GatewayPeer::receiveTopic(const QString &topic, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    for (int left = timeoutMs; left > 0; left = timeoutMs - static_cast<int>(t.elapsed())) {
        const QJsonObject envelope = receive(left);
        if (envelope.isEmpty() || envelope.value("topic").toString() == topic)
            return envelope;
    }
    return QJsonObject();
}

}  // namespace lumbra::test
