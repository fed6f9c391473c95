// Messages for the broker while it is away, bounded in count and in bytes.
// When full, the oldest real-time upload goes first: each one carries the
// latest values and the next one replaces it. Only when none is left does the
// oldest of the others go. Order is kept otherwise. Not locked; its owner
// holds the lock.
#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <deque>

namespace agent {

struct Pending {
    QByteArray topic, payload;
    int qos = 0;
};

class PublishQueue {
public:
    struct Drops {
        unsigned long realtime = 0, others = 0;
        unsigned long total() const { return realtime + others; }
    };

    PublishQueue(size_t maxMessages, qint64 maxBytes);

    // Queues p, dropping what the bounds demand (p itself when it alone is
    // over the byte bound). True when this made the first drop since the
    // last takeDrops(), so that an outage is logged once, not per message.
    bool push(Pending p);
    bool empty() const { return m_realtime.empty() && m_others.empty(); }
    size_t size() const { return m_realtime.size() + m_others.size(); }
    qint64 bytes() const { return m_bytes; }
    // The oldest message kept; the queue must not be empty.
    const Pending &front() const;
    void pop();
    // What was dropped since the last call, and starts counting again.
    Drops takeDrops();

    // Real-time uploads: ".../DevSend/RTD" and ".../DevSend/RTDCompress".
    static bool realtime(const QByteArray &topic);

private:
    struct Entry {
        uint64_t seq;  // arrival order across both lanes
        Pending message;
    };
    using Lane = std::deque<Entry>;

    // Which lane holds the oldest message.
    bool realtimeIsOlder() const;
    void dropOldest();
    void popFront(Lane &lane);
    static qint64 cost(const Pending &p) { return p.topic.size() + p.payload.size(); }

    size_t m_maxMessages;
    qint64 m_maxBytes;
    Lane m_realtime, m_others;
    uint64_t m_nextSeq = 0;
    qint64 m_bytes = 0;
    Drops m_drops;
};

}  // namespace agent
