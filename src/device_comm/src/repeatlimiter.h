// Keeps a fault that recurs every poll from flooding the log: the first
// occurrence is logged, then at most one line a minute with the number of
// repeats held back. Not thread-safe: each user guards its own.
#pragma once

#include <chrono>

class RepeatLimiter {
public:
    explicit RepeatLimiter(std::chrono::milliseconds interval = std::chrono::minutes(1)) : m_interval(interval) {}

    // True when the caller should log now; *held then gets the number of
    // occurrences that were not logged since the last line.
    bool allow(int *held = nullptr)
    {
        const auto now = std::chrono::steady_clock::now();
        if (m_logged && now - m_last < m_interval) {
            ++m_held;
            return false;
        }
        if (held)
            *held = m_held;
        m_held = 0;
        m_last = now;
        m_logged = true;
        return true;
    }

    // The fault went away: its next occurrence is news again.
    void reset()
    {
        m_logged = false;
        m_held = 0;
    }

private:
    std::chrono::milliseconds m_interval;
    std::chrono::steady_clock::time_point m_last;
    bool m_logged = false;
    int m_held = 0;
};
