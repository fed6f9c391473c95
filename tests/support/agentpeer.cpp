#include "agentpeer.h"

#include <QElapsedTimer>
#include <QJsonDocument>

#include <cerrno>

#include <nanomsg/nn.h>
#include <nanomsg/pair.h>

namespace lumbra::test {

void NnSocket::reset(int fd)
{
    if (m_fd >= 0)
        nn_close(m_fd);
    m_fd = fd;
}

AgentPeer::AgentPeer(const QString &url, Role role) : m_url(url), m_role(role)
{
    open();
}

bool AgentPeer::open()
{
    m_socket.reset();
    NnSocket s(nn_socket(AF_SP, NN_PAIR));
    const QByteArray url = m_url.toUtf8();
    if (!s.valid())
        return false;
    if ((m_role == Role::Bind ? nn_bind(s.get(), url.constData()) : nn_connect(s.get(), url.constData())) < 0)
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
    QElapsedTimer t;
    t.start();
    while (bound()) {
        // nanomsg takes 0 as "do not wait", -1 as "wait for ever"; neither is meant here.
        int left = qMax(timeoutMs - static_cast<int>(t.elapsed()), 1);
        if (nn_setsockopt(m_socket.get(), NN_SOL_SOCKET, NN_RCVTIMEO, &left, sizeof left) < 0)
            break;
        char *buf = nullptr;
        int len = nn_recv(m_socket.get(), &buf, NN_MSG, 0);
        if (len >= 0) {
            QByteArray data(buf, len);
            nn_freemsg(buf);
            return data;
        }
        // Where Qt reaps its children through a SIGCHLD handler (no pidfd:
        // older kernels, emulators), any child's exit cuts the wait short.
        if (nn_errno() != EINTR || t.elapsed() >= timeoutMs)
            break;
    }
    return QByteArray();
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
        return AgentUpload::of(envelope);
    }
    return AgentUpload();
}

AgentUpload AgentUpload::of(const QJsonObject &envelope)
{
    const QString text = envelope.value("msg").toString();
    return {envelope.value("topic").toString(), text, QJsonDocument::fromJson(text.toUtf8()).object(), envelope};
}

}  // namespace lumbra::test
