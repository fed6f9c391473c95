// The local MQTT agent's end of the gateway's nanomsg PAIR link, bound on
// loopback: reads what the gateway uploads and pushes cloud commands to it.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace lumbra::test {

// Owns one nanomsg socket handle.
class NnSocket {
public:
    explicit NnSocket(int fd = -1) : m_fd(fd) {}
    ~NnSocket() { reset(); }
    NnSocket(const NnSocket &) = delete;
    NnSocket &operator=(const NnSocket &) = delete;
    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    void reset(int fd = -1);
    int release()
    {
        int fd = m_fd;
        m_fd = -1;
        return fd;
    }

private:
    int m_fd;
};

// One upload as the agent sees it.
struct AgentUpload {
    QString topic;          // the full topic, "/<sn>_<version>/DevSend/RTD"
    QString text;           // "msg" as sent
    QJsonObject msg;        // "msg" parsed; empty when it is no JSON object
    QJsonObject envelope;
    bool ok() const { return !topic.isEmpty(); }
    static AgentUpload of(const QJsonObject &envelope);
};

class AgentPeer {
public:
    // Bind plays the agent; Connect plays a gateway talking to a real agent.
    enum class Role { Bind, Connect };
    // Opens right away; bound() tells whether that worked.
    explicit AgentPeer(const QString &url, Role role = Role::Bind);
    QString url() const { return m_url; }
    bool bound() const { return m_socket.valid(); }
    // Leaves the URL, as a peer that went away; open() comes back.
    void close() { m_socket.reset(); }
    bool open();
    bool bind() { return open(); }

    bool send(const QByteArray &bytes, int timeoutMs = 2000);
    // The next message, or empty when none came within timeoutMs.
    QByteArray receive(int timeoutMs);
    // The next message that is a JSON object.
    QJsonObject receiveEnvelope(int timeoutMs);
    // The next upload whose topic ends with suffix, skipping all else
    // (status requests, other uploads); !ok() when none came in time.
    AgentUpload receiveTopic(const QString &suffix, int timeoutMs);

private:
    QString m_url;
    Role m_role;
    NnSocket m_socket;
};

}  // namespace lumbra::test
