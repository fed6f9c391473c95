#include "eventhub.h"

#include <algorithm>

namespace platform {
namespace {

const qint64 kMaxBacklog = 4 << 20;

}  // namespace

bool Subscriber::next(std::vector<QByteArray> *out, int waitMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_ready.wait_for(lock, std::chrono::milliseconds(waitMs), [this] { return m_ended || !m_frames.empty(); });
    for (QByteArray &f : m_frames)
        out->push_back(std::move(f));
    m_frames.clear();
    m_bytes = 0;
    return !m_ended;
}

bool Subscriber::offer(const QString &serial, const QByteArray &frame)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_serial.isEmpty() && serial != m_serial)
            return true;
        if (m_bytes + frame.size() > kMaxBacklog) {
            m_ended = true;
        } else {
            m_frames.push_back(frame);
            m_bytes += frame.size();
        }
    }
    m_ready.notify_all();
    return !m_ended;
}

void Subscriber::end()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = true;
    }
    m_ready.notify_all();
}

std::shared_ptr<Subscriber> EventHub::subscribe(const QString &serial)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closed || m_subs.size() >= m_max)
        return nullptr;
    m_subs.push_back(std::make_shared<Subscriber>(serial));
    return m_subs.back();
}

void EventHub::unsubscribe(const std::shared_ptr<Subscriber> &s)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_subs.erase(std::remove(m_subs.begin(), m_subs.end(), s), m_subs.end());
}

void EventHub::publish(const Change &change)
{
    const QByteArray frame = "event: " + change.event + "\ndata: " + change.json + "\n\n";
    std::lock_guard<std::mutex> lock(m_mutex);
    // A slow subscriber ends itself in offer(); drop it from the list here.
    m_subs.erase(std::remove_if(m_subs.begin(), m_subs.end(),
                                [&](const std::shared_ptr<Subscriber> &s) { return !s->offer(change.serial, frame); }),
                 m_subs.end());
}

void EventHub::closeAll()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closed = true;
    for (const auto &s : m_subs)
        s->end();
    m_subs.clear();
}

size_t EventHub::subscribers() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_subs.size();
}

}  // namespace platform
