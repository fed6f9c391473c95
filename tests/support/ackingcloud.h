// The maker's cloud platform as far as delivery goes: a libmosquitto client
// on the test broker that takes the gateway's alarm events and history
// batches, keeps them, and acknowledges each after a delay, as the platform
// does. It reconnects on its own when the broker comes back.
#pragma once

#include "mqttclient.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMutex>
#include <QSet>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace lumbra::test {

class AckingCloud {
public:
    // prefix: "/<serial>_<version>", the start of the device's topics.
    AckingCloud(int brokerPort, const QString &prefix, int ackDelayMs = 0);
    ~AckingCloud();
    AckingCloud(const AckingCloud &) = delete;
    AckingCloud &operator=(const AckingCloud &) = delete;

    bool connected(int timeoutMs = 5000) const;

    // Every alarm message received ("alarm_index", "alarm_note",
    // "alarm_time", "reqId"), resends included, in arrival order.
    QList<QJsonObject> alarms() const;
    // Every history row received as "<group>@<data_time>", resends included.
    QStringList historyRows() const;
    // Real-time messages received so far.
    int realTimeCount() const;

    void received(const QString &topic, const QByteArray &payload);

private:
    struct Ack {
        qint64 dueMs;
        QString topic;
        QByteArray payload;
    };
    void ackLater(const QString &shortTopic, const QByteArray &payload);
    void ackLoop();

    QString m_prefix;
    std::atomic<int> m_delayMs;
    mutable QMutex m_mutex;
    QList<QJsonObject> m_alarms;
    QStringList m_rows;
    int m_realTime = 0;
    std::mutex m_ackMutex;
    std::condition_variable m_ackReady;
    std::deque<Ack> m_acks;
    bool m_stop = false;
    std::thread m_acker;
    MqttClient m_client;  // last: its callback uses everything above
};

}  // namespace lumbra::test
