#include "sleeper.h"

#include <QDeadlineTimer>

namespace lumbra {

bool Sleeper::sleep(int ms)
{
    QMutexLocker lock(&m_mutex);
    QDeadlineTimer deadline(ms > 0 ? ms : 0);
    while (!m_stopped && !m_woken && !deadline.hasExpired())
        m_cond.wait(&m_mutex, deadline);
    m_woken = false;
    return !m_stopped;
}

void Sleeper::wake()
{
    QMutexLocker lock(&m_mutex);
    m_woken = true;
    m_cond.wakeAll();
}

void Sleeper::stop()
{
    QMutexLocker lock(&m_mutex);
    m_stopped = true;
    m_cond.wakeAll();
}

void Sleeper::restart()
{
    QMutexLocker lock(&m_mutex);
    m_stopped = false;
    m_woken = false;
}

bool Sleeper::stopped() const
{
    QMutexLocker lock(&m_mutex);
    return m_stopped;
}

}  // namespace lumbra
