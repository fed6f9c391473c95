// Server-sent events for the console: every committed change ("points",
// "alarm", "gateway") goes to each subscriber that wants that gateway. A
// subscriber that cannot keep up (its backlog past 4 MB) is cut off rather
// than let memory grow; its browser reconnects and reloads.
#pragma once

#include "storewriter.h"  // Change

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace platform {

class EventHub;

class Subscriber {
public:
    explicit Subscriber(const QString &serial) : m_serial(serial) {}
    // Waits up to waitMs for frames and moves them to *out; false once the
    // subscription ended.
    bool next(std::vector<QByteArray> *out, int waitMs);

private:
    friend class EventHub;
    bool offer(const QString &serial, const QByteArray &frame);
    void end();

    const QString m_serial;  // empty: every gateway
    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<QByteArray> m_frames;
    qint64 m_bytes = 0;
    bool m_ended = false;
};

class EventHub {
public:
    explicit EventHub(size_t maxSubscribers = 32) : m_max(maxSubscribers) {}
    ~EventHub() { closeAll(); }
    // Null when the hub is full or closed.
    std::shared_ptr<Subscriber> subscribe(const QString &serial);
    void unsubscribe(const std::shared_ptr<Subscriber> &s);
    void publish(const Change &change);
    void closeAll();
    size_t subscribers() const;

private:
    const size_t m_max;
    mutable std::mutex m_mutex;
    std::vector<std::shared_ptr<Subscriber>> m_subs;
    bool m_closed = false;
};

}  // namespace platform
