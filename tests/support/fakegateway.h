// A gateway as a platform meets it on the broker, fast and counted: history
// rows go up in batches (one batch in flight per group, the same rows again
// every resendMs until "/DevRecv/HisData" names the group), alarm events one
// at a time (the same reqId again until "/DevRecv/MsgAck" names it). What a
// platform acknowledges leaves; nothing else does. restart() plays a gateway
// killed before it saw its acknowledgements: the in-flight batches are cut
// afresh and events go again under new request ids.
#pragma once

#include "mqttclient.h"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace lumbra::test {

class FakeGateway {
public:
    FakeGateway(int brokerPort, const QString &serial, int resendMs = 1000);
    ~FakeGateway();
    FakeGateway(const FakeGateway &) = delete;
    FakeGateway &operator=(const FakeGateway &) = delete;

    QString serial() const { return m_serial; }
    QByteArray prefix() const { return "/" + m_serial.toUtf8() + "_3.0.0"; }
    bool connected(int timeoutMs = 5000) const;

    // Rows "<serial> g<group> #<n>" at seconds 1000000 + n. With equalPairs
    // every row is stored twice (same second and text), as a trigger group
    // that fires twice in a second.
    void addHistory(quint32 group, int rows, bool equalPairs = false);
    // Alarm index 1 set and cleared, two events a second (an alarm and its
    // recovery share a second), as a flapping bit.
    void addAlarms(int events);
    // Rows per batch from now on (the gateway's is 300).
    void setBatchRows(int n) { m_batchRows = n; }
    // Each row carries "row_id", its number in the group.
    void setRowIds(bool on) { m_rowIds = on; }
    void restart();
    // Deaf for ms, then restart(): the gateway died after its uploads went
    // and came back without the acknowledgements, which is what makes a
    // platform see the same rows and events again.
    void missAcks(int ms);

    int historyLeft() const;
    int alarmsLeft() const;
    quint64 published() const { return m_published; }
    // Raw upload on prefix() + shortTopic.
    bool publish(const QByteArray &shortTopic, const QByteArray &payload);

    void received(const QByteArray &topic, const QByteArray &payload);

private:
    struct Row {
        qint64 time;
        QByteArray text;
        qint64 id;
    };
    struct Group {
        std::deque<Row> rows;
        qint64 added = 0;  // samples so far
        qint64 ids = 0;    // rows so far
        int inFlight = 0;  // rows of the batch in flight, from the front
        int posts = 0;     // copies of it sent
        qint64 sentMs = 0;
        // As the gateway: after a batch sent more than once, the answers to
        // its other copies are awaited (up to 2 s) before the next batch
        // goes, so that they cannot be taken for the next batch's.
        int staleAcks = 0;
        qint64 settleUntilMs = 0;
    };
    struct Event {
        int index;
        int type;
        qint64 time;
    };
    void loop();
    void sendDue();
    void sendBatch(quint32 id, Group &g);
    void sendAlarm();

    QString m_serial;
    const int m_resendMs;
    std::atomic<int> m_batchRows{300};
    std::atomic<bool> m_rowIds{false};
    std::atomic<quint64> m_published{0};

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    QMap<quint32, Group> m_groups;
    std::deque<Event> m_alarms;
    int m_alarmsAdded = 0;
    quint32 m_reqId = 0;
    bool m_alarmInFlight = false;
    qint64 m_alarmSentMs = 0;
    qint64 m_deafUntilMs = 0;
    bool m_stop = false;
    MqttClient m_client;  // after the state its callback touches
    std::thread m_thread;
};

}  // namespace lumbra::test
