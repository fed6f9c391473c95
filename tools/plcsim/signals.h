// SIGINT/SIGTERM end the simulator cleanly. They stay blocked except while
// the loop waits in ppoll(), so a signal is never lost between a check and
// the wait.
#pragma once

#include <signal.h>

namespace plcsim {

class StopSignals {
public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals &) = delete;
    StopSignals &operator=(const StopSignals &) = delete;

    bool requested() const;
    // The mask to wait with: the stop signals let through.
    const sigset_t *waitMask() const { return &m_waitMask; }

private:
    sigset_t m_waitMask;
    sigset_t m_oldMask;
};

}  // namespace plcsim
