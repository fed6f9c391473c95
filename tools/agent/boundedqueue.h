// A FIFO that keeps at most `limit` items: a new item pushes out the oldest.
// Not locked; its owner holds the lock.
#pragma once

#include <cstddef>
#include <deque>
#include <utility>

namespace agent {

template <typename T>
class BoundedQueue {
public:
    explicit BoundedQueue(size_t limit) : m_limit(limit ? limit : 1) {}

    // True when the oldest item had to go to make room.
    bool push(T item)
    {
        bool dropped = false;
        if (m_items.size() >= m_limit) {
            m_items.pop_front();
            ++m_dropped;
            dropped = true;
        }
        m_items.push_back(std::move(item));
        return dropped;
    }
    bool empty() const { return m_items.empty(); }
    size_t size() const { return m_items.size(); }
    T &front() { return m_items.front(); }
    void pop() { m_items.pop_front(); }
    // Items dropped since the start.
    unsigned long dropped() const { return m_dropped; }

private:
    size_t m_limit;
    std::deque<T> m_items;
    unsigned long m_dropped = 0;
};

// Logging every drop during a long outage would flood the journal: the first
// drop and every hundredth after it are worth a line.
inline bool worthLogging(unsigned long dropped)
{
    return dropped == 1 || dropped % 100 == 0;
}

}  // namespace agent
