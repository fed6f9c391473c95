// Keeps a line that outside input can repeat at will (a platform that
// acknowledges the wrong thing a thousand times) from filling the log: the
// first goes through, then at most one per interval, telling how many were
// held back in between.
#pragma once

#include <QElapsedTimer>

namespace lumbra {

// Not locked: its owner calls it under a lock of its own.
class LogThrottle {
public:
    explicit LogThrottle(qint64 intervalMs = 10000) : m_intervalMs(intervalMs) {}

    // True when the line may be logged now; *held is how many were held
    // back since the last one that went through.
    bool allow(int *held)
    {
        if (m_clock.isValid() && m_clock.elapsed() < m_intervalMs) {
            ++m_held;
            return false;
        }
        m_clock.start();
        *held = m_held;
        m_held = 0;
        return true;
    }

private:
    qint64 m_intervalMs;
    QElapsedTimer m_clock;
    int m_held = 0;
};

}  // namespace lumbra
