// The one way out to the cloud. Services post what they want sent and return
// at once; the agent bridge's sender thread takes the messages out in order
// and owns the socket, so nothing a service does ever waits for the network.
// Data flow one way: driver -> services -> outbox -> bridge.
#pragma once

#include <QByteArray>
#include <QMutex>
#include <QString>
#include <QWaitCondition>

#include <atomic>
#include <cstdint>
#include <deque>

class Outbox {
public:
    enum Kind {
        // Real-time values: a newer message on the same topic replaces one
        // still waiting, so an outage costs one message per topic, not one a
        // second.
        Latest,
        // Alarm events and history batches: their service keeps them in its
        // database and sends them again until they are acknowledged. Refused
        // while the cloud is down, and the first to go when the box is full.
        Stored,
        // Everything else (acknowledgements, configuration requests, status
        // reports, the agent's own requests): in order; when the box is full
        // the oldest goes, with a log line.
        Ordered,
    };

    // What the box holds at most; past either bound the oldest messages go,
    // real-time first, then stored ones, then the rest.
    static constexpr int kMaxMessages = 512;
    static constexpr qint64 kMaxBytes = 16 * 1024 * 1024;

    static Outbox *getInstance();

    // Wraps payload in the agent's envelope under "/<sn>_<version><topic>"
    // and queues it. False when it was not queued (a Stored message while the
    // cloud is down, or the box closed); never blocks.
    bool post(const QString &topic, const QString &payload, bool zip, int qos, Kind kind);
    // The same for a payload that is UTF-8 text already.
    bool postUtf8(const QString &topic, const QByteArray &payload, bool zip, int qos, Kind kind);
    // For a payload written straight into its envelope, escaped once rather
    // than built whole and then escaped: the envelope up to the opening
    // quote of the payload, with room for payloadBytes more. Append the
    // payload as the inside of a JSON string (lumbra::appendJsonEscaped)
    // and queue the whole with postEnvelope.
    static QByteArray envelopeHead(const QString &topic, int qos, int payloadBytes);
    bool postEnvelope(const QString &topic, QByteArray text, bool zip, Kind kind);
    // Queues text as it is: messages for the agent itself ("restartLumbra").
    bool postRaw(const QByteArray &text);

    // True while the agent last said the cloud is up and no send to the agent
    // failed since.
    bool cloudUp() const { return m_cloudUp; }
    // Counts the times the cloud came up: a service that sees it change
    // knows the platform may have missed what happened while it was down.
    quint64 upCount() const { return m_upCount; }
    int waiting() const;

    // The bridge's side.
    struct Message {
        QByteArray text;
        Kind kind = Ordered;
    };
    // Waits up to timeoutMs for the next message; false when none came.
    bool take(Message *out, int timeoutMs);
    // Puts a message that could not be sent back at the front (Ordered ones
    // only: the others are sent again by their service, or replaced).
    void putBack(const Message &m);
    // The agent's word on the cloud link.
    void setCloudState(bool up);
    // The agent did not take a message in time: down until it says up again.
    void agentLost();
    // Ends take() waits and refuses further posts, for an orderly end; open()
    // undoes it (tests start the bridge more than once).
    void close();
    void open();
    // Drops every waiting message (tests).
    void clear();

private:
    Outbox() = default;
    struct Entry {
        Message message;
        QString topic;  // for Latest: the key a newer message replaces
    };
    bool enqueue(Entry entry);
    void makeRoom(qint64 incoming);
    bool dropOldest(Kind kind);
    void publishState(bool up);

    mutable QMutex m_mutex;
    QWaitCondition m_ready;
    std::deque<Entry> m_queue;
    qint64 m_bytes = 0;
    bool m_closed = false;
    int m_dropped = 0;  // since the last log line about it
    std::atomic<bool> m_cloudUp{false};
    std::atomic<quint64> m_upCount{0};
};
