#include "publishqueue.h"

namespace agent {

PublishQueue::PublishQueue(size_t maxMessages, qint64 maxBytes)
    : m_maxMessages(maxMessages ? maxMessages : 1), m_maxBytes(maxBytes > 0 ? maxBytes : 1)
{
}

bool PublishQueue::realtime(const QByteArray &topic)
{
    return topic.endsWith("/DevSend/RTD") || topic.endsWith("/DevSend/RTDCompress");
}

bool PublishQueue::push(Pending p)
{
    const bool hadDrops = m_drops.total() > 0;
    const bool isRealtime = realtime(p.topic);
    if (cost(p) > m_maxBytes) {
        // Keeping it would cost everything else, and still break the bound.
        ++(isRealtime ? m_drops.realtime : m_drops.others);
        return !hadDrops;
    }
    m_bytes += cost(p);
    (isRealtime ? m_realtime : m_others).push_back(Entry{m_nextSeq++, std::move(p)});
    while (size() > m_maxMessages || m_bytes > m_maxBytes)
        dropOldest();
    return !hadDrops && m_drops.total() > 0;
}

void PublishQueue::dropOldest()
{
    const bool fromRealtime = !m_realtime.empty();
    popFront(fromRealtime ? m_realtime : m_others);
    ++(fromRealtime ? m_drops.realtime : m_drops.others);
}

void PublishQueue::popFront(Lane &lane)
{
    m_bytes -= cost(lane.front().message);
    lane.pop_front();
}

bool PublishQueue::realtimeIsOlder() const
{
    if (m_realtime.empty() || m_others.empty())
        return !m_realtime.empty();
    return m_realtime.front().seq < m_others.front().seq;
}

const Pending &PublishQueue::front() const
{
    return (realtimeIsOlder() ? m_realtime : m_others).front().message;
}

void PublishQueue::pop()
{
    popFront(realtimeIsOlder() ? m_realtime : m_others);
}

PublishQueue::Drops PublishQueue::takeDrops()
{
    const Drops d = m_drops;
    m_drops = Drops();
    return d;
}

}  // namespace agent
