// A real mosquitto broker on a loopback port, and a small libmosquitto
// client playing the user's side of it.
#pragma once

#include "process.h"

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QString>
#include <QTemporaryDir>

#include <memory>

struct mosquitto;

namespace lumbra::test {

class MosquittoBroker {
public:
    // With a user, only that account may connect.
    explicit MosquittoBroker(const QString &user = QString(), const QString &password = QString());
    int port() const { return m_port; }
    // More configuration lines, before start().
    void addConfig(const QByteArray &lines);
    bool start();
    // Stops the broker it started (by pid) and waits for the end.
    void stop();
    // Connections the broker refused for their account so far.
    int refusals();

private:
    QTemporaryDir m_dir;
    int m_port;
    std::unique_ptr<ChildProcess> m_proc;
};

struct MqttMessage {
    QString topic;
    QByteArray payload;
};

class MqttProbe {
public:
    // Connects to the broker at port and subscribes to filter ("#": all).
    MqttProbe(int port, const QString &filter);
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
