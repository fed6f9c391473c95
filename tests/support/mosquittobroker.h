// A real mosquitto broker on a loopback port, and a small libmosquitto
// client playing the user's side of it.
#pragma once

#include "process.h"

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QStringList>
#include <QMutex>
#include <QString>
#include <QTemporaryDir>

#include <memory>

struct mosquitto;

namespace lumbra::test {

// TLS files of a listener or a client, as PEM paths.
struct TlsFiles {
    QString cafile;
    QString certfile;
    QString keyfile;
    bool requireCertificate = false;  // a listener asks for client certificates
};

class MosquittoBroker {
public:
    // With a user, only that account may connect.
    explicit MosquittoBroker(const QString &user = QString(), const QString &password = QString());
    // The plain listener, or the first TLS one when there is no plain one.
    int port() const { return m_plain || m_tls.isEmpty() ? m_port : m_tls.first().first; }
    // Before start(): a further listener on a free port that speaks only TLS.
    int addTlsListener(const TlsFiles &tls);
    // Before start(): no plain listener, TLS only.
    void setPlain(bool plain) { m_plain = plain; }
    // Before start(): an ACL file of these lines, and configuration lines.
    void setAcl(const QByteArray &lines);
    void addConfig(const QByteArray &lines) { m_extra += lines + "\n"; }
    // Starts it, or again after stop() or kill(), on the same ports.
    bool start();
    // Stops the broker it started (by pid) and waits for the end.
    void stop();
    // SIGKILL, and SIGSTOP / SIGCONT: a broker that dies, or hangs with its
    // connections open.
    void kill();
    bool pause();
    bool resume();
    // Connections the broker refused for their account so far.
    int refusals();
    QByteArray log();

private:
    QTemporaryDir m_dir;
    int m_port;
    bool m_plain = true;
    QList<QPair<int, TlsFiles>> m_tls;
    QByteArray m_extra;
    QByteArray m_auth;
    std::unique_ptr<ChildProcess> m_proc;
};

// Certificates made by openssl for TLS tests: a CA, and what it signs.
class TestPki {
public:
    TestPki();
    bool ok() const { return m_ok; }
    QString caFile() const { return file("ca.crt"); }
    // A certificate for subjectAltName san ("IP:127.0.0.1", "DNS:elsewhere")
    // at <name>.crt with its key at <name>.key, signed by the CA or by its
    // own key.
    bool make(const QString &name, const QString &san, bool selfSigned = false);
    // The key of name encrypted with password, at <name>.enc.key.
    bool encryptKey(const QString &name, const QString &password);
    QString file(const QString &name) const { return m_dir.path() + "/" + name; }

private:
    bool openssl(const QStringList &args);

    QTemporaryDir m_dir;
    bool m_ok = false;
};

struct MqttMessage {
    QString topic;
    QByteArray payload;
};

class MqttProbe {
public:
    // Connects to the broker at port and subscribes to filter ("#": all),
    // over TLS when tls names a CA.
    MqttProbe(int port, const QString &filter, const TlsFiles &tls = TlsFiles());
    ~MqttProbe();
    bool connected(int timeoutMs = 5000);
    bool publish(const QString &topic, const QByteArray &payload);
    // Waits until count messages on topic arrived; all of them on topic.
    QList<MqttMessage> take(const QString &topic, int count, int timeoutMs);
    QList<MqttMessage> all();

    void received(const QString &topic, const QByteArray &payload);
    void setConnected();

private:
    mosquitto *m_mosq = nullptr;
    QMutex m_mutex;
    QList<MqttMessage> m_messages;
    bool m_connected = false;
};

}  // namespace lumbra::test
