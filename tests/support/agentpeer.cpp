#include "agentpeer.h"

#include <QElapsedTimer>
#include <QJsonDocument>

#include <nanomsg/nn.h>
#include <nanomsg/pair.h>

namespace lumbra::test {

void NnSocket::reset(int fd)
{
    if (m_fd >= 0)
        nn_close(m_fd);
    m_fd = fd;
}

AgentPeer::AgentPeer(const QString &url) : m_url(url)
{
    bind();
}

bool AgentPeer::bind()
{
    m_socket.reset();
    NnSocket s(nn_socket(AF_SP, NN_PAIR));
    if (!s.valid() || nn_bind(s.get(), m_url.toUtf8().constData()) < 0)
        return false;
    m_socket.reset(s.release());
    return true;
}

bool AgentPeer::send(const QByteArray &bytes, int timeoutMs)
{
    if (!bound() ||
        nn_setsockopt(m_socket.get(), NN_SOL_SOCKET, NN_SNDTIMEO, &timeoutMs, sizeof timeoutMs) < 0)
        return false;
    return nn_send(m_socket.get(), bytes.constData(), static_cast<size_t>(bytes.size()), 0) == bytes.size();
}

QByteArray AgentPeer::receive(int timeoutMs)
{
    // nanomsg takes 0 as "do not wait", -1 as "wait for ever"; neither is meant here.
    timeoutMs = qMax(timeoutMs, 1);
    if (!bound() ||
        nn_setsockopt(m_socket.get(), NN_SOL_SOCKET, NN_RCVTIMEO, &timeoutMs, sizeof timeoutMs) < 0)
        return QByteArray();
    char *buf = nullptr;
    int len = nn_recv(m_socket.get(), &buf, NN_MSG, 0);
    if (len < 0)
        return QByteArray();
    QByteArray data(buf, len);
    nn_freemsg(buf);
    return data;
}

QJsonObject AgentPeer::receiveEnvelope(int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    for (int left = timeoutMs; left > 0; left = timeoutMs - static_cast<int>(t.elapsed())) {
        QByteArray data = receive(left);
        if (data.isEmpty())
            break;
        QJsonDocument doc = QJsonDocument::fromJson(data);
        if (doc.isObject())
            return doc.object();
    }
    return QJsonObject();
}

AgentUpload AgentPeer::receiveTopic(const QString &suffix, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    for (int left = timeoutMs; left > 0; left = timeoutMs - static_cast<int>(t.elapsed())) {
        QJsonObject envelope = receiveEnvelope(left);
        QString topic = envelope.value("topic").toString();
        if (envelope.isEmpty())
            break;
        if (!topic.endsWith(suffix) || !envelope.contains("msg"))
            continue;
        AgentUpload up;
        up.topic = topic;
        up.text = envelope.value("msg").toString();
        up.msg = QJsonDocument::fromJson(up.text.toUtf8()).object();
        up.envelope = envelope;
        return up;
    }
    return AgentUpload();
}

}  // namespace lumbra::test
