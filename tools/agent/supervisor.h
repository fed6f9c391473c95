// Keeps the gateway running: starts it, restarts it when it asks for it
// (SIGTERM, SIGKILL after stop_timeout_ms, then at once a new one) and when
// it ends unexpectedly (after a back-off: restart_min_ms doubling up to
// restart_max_ms, reset once a run lasted stable_s), and stops it when the
// agent stops. Driven by the main loop: it is told about SIGCHLD and says
// when it next wants the clock.
#pragma once

#include "agentconfig.h"

#include <QByteArray>

#include <chrono>
#include <sys/types.h>

namespace agent {

class Supervisor {
public:
    Supervisor(const SupervisorSettings &settings, const QByteArray &agentUrl);

    void start();
    void requestRestart();
    // Stops the gateway for good; finished() tells when it is gone.
    void shutdown();
    bool finished() const { return m_state == State::Done; }

    // A child changed state (SIGCHLD).
    void childEvent();
    // Milliseconds until onTimer has work, or -1 for none.
    int msUntilDue() const;
    void onTimer();

private:
    using Clock = std::chrono::steady_clock;
    enum class State { Idle, Running, Waiting, Stopping, Done };

    void launch();
    void terminate(const char *why);
    void exited(int status);
    void waitThenStart(const QByteArray &what);
    int nextDelayMs(Clock::duration ran);

    SupervisorSettings m_settings;
    QByteArray m_url;
    State m_state = State::Idle;
    bool m_shuttingDown = false;
    bool m_killed = false;
    pid_t m_pid = -1;
    Clock::time_point m_startedAt;
    Clock::time_point m_due;
    bool m_hasDue = false;
    int m_lastDelayMs = 0;
};

}  // namespace agent
