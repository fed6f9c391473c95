#include "ingestqueue.h"

namespace platform {

bool IngestQueue::push(Inbound &&m)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closed || m_items.size() >= m_maxMessages || m_bytes + m.bytes > m_maxBytes) {
            ++m_dropped;
            return false;
        }
        m_bytes += m.bytes;
        m_items.push_back(std::move(m));
    }
    m_ready.notify_one();
    return true;
}

std::vector<Inbound> IngestQueue::take(size_t max, int waitMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_ready.wait_for(lock, std::chrono::milliseconds(waitMs), [this] { return m_closed || !m_items.empty(); });
    std::vector<Inbound> out;
    while (!m_items.empty() && out.size() < max) {
        m_bytes -= m_items.front().bytes;
        out.push_back(std::move(m_items.front()));
        m_items.pop_front();
    }
    return out;
}

void IngestQueue::close()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_ready.notify_all();
}

bool IngestQueue::closed() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_closed;
}

size_t IngestQueue::size() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_items.size();
}

quint64 IngestQueue::takeDropped()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const quint64 n = m_dropped;
    m_dropped = 0;
    return n;
}

}  // namespace platform
