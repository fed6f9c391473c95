// Between the MQTT thread and the store: bounded in messages and bytes, so a
// database that stalls costs memory up to a limit and then drops what comes
// in. Nothing dropped here was acknowledged, so the gateway sends history and
// alarms again; only real-time values are lost, and newer ones follow.
#pragma once

#include "inbound.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

namespace platform {

class IngestQueue {
public:
    IngestQueue(size_t maxMessages, qint64 maxBytes) : m_maxMessages(maxMessages), m_maxBytes(maxBytes) {}

    // False when full (or closed): the message was dropped.
    bool push(Inbound &&m);
    // Waits up to waitMs for a first message, then takes up to max of what
    // is there. Empty when closed and drained.
    std::vector<Inbound> take(size_t max, int waitMs);
    void close();
    bool closed() const;
    size_t size() const;
    // Messages dropped since the last call.
    quint64 takeDropped();

private:
    const size_t m_maxMessages;
    const qint64 m_maxBytes;
    mutable std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<Inbound> m_items;
    qint64 m_bytes = 0;
    quint64 m_dropped = 0;
    bool m_closed = false;
};

}  // namespace platform
