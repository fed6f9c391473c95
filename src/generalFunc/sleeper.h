// A thread's pause that another thread can cut short. Service threads used
// to sleep in slices of 50 or 100 ms so that a stop was noticed soon; each
// slice was a wake-up, dozens a second on an idle box. This is one a pause.
#pragma once

#include <QMutex>
#include <QWaitCondition>

namespace lumbra {

class Sleeper {
public:
    // Waits ms, or less when woken or stopped; false once stopped.
    bool sleep(int ms);
    // Ends the current pause (and the next one, if none runs yet).
    void wake();
    // Ends every pause until restart().
    void stop();
    void restart();
    bool stopped() const;

private:
    mutable QMutex m_mutex;
    QWaitCondition m_cond;
    bool m_stopped = false;
    bool m_woken = false;
};

}  // namespace lumbra
