#include "supervisor.h"

#include "agentlog.h"
#include "spawn.h"

#include <cerrno>
#include <csignal>
#include <sys/wait.h>

namespace agent {
namespace {

// "0.2 s", "1 s", "60 s"
QByteArray seconds(int ms)
{
    return QByteArray::number(ms / 1000.0, 'g', 3) + " s";
}

}  // namespace

Supervisor::Supervisor(const SupervisorSettings &settings, const QByteArray &agentUrl)
    : m_settings(settings), m_url(agentUrl)
{
}

void Supervisor::start()
{
    if (m_settings.command.isEmpty()) {
        AGENT_INFO("no gateway command: bridging only");
        return;
    }
    launch();
}

void Supervisor::launch()
{
    m_hasDue = false;
    m_killed = false;
    m_startedAt = Clock::now();
    QByteArray error;
    const pid_t pid = spawnGateway(m_settings.command, m_url, &error);
    if (pid < 0) {
        waitThenStart("cannot start gateway " + m_settings.command.value(0).toLocal8Bit() + ": " + error);
        return;
    }
    m_pid = pid;
    m_state = State::Running;
    AGENT_INFO("gateway started, pid %d: %s", int(pid), m_settings.command.join(' ').toLocal8Bit().constData());
}

int Supervisor::nextDelayMs(Clock::duration ran)
{
    if (ran >= std::chrono::seconds(m_settings.stableS))
        m_lastDelayMs = 0;
    m_lastDelayMs = m_lastDelayMs ? std::min(m_lastDelayMs * 2, m_settings.restartMaxMs) : m_settings.restartMinMs;
    return m_lastDelayMs;
}

void Supervisor::waitThenStart(const QByteArray &what)
{
    const int delay = nextDelayMs(Clock::now() - m_startedAt);
    AGENT_WARN("%s, restarting in %s", what.constData(), seconds(delay).constData());
    m_state = State::Waiting;
    m_due = Clock::now() + std::chrono::milliseconds(delay);
    m_hasDue = true;
}

void Supervisor::terminate(const char *why)
{
    AGENT_INFO("%s: stopping gateway pid %d", why, int(m_pid));
    kill(m_pid, SIGTERM);
    m_state = State::Stopping;
    m_due = Clock::now() + std::chrono::milliseconds(m_settings.stopTimeoutMs);
    m_hasDue = true;
}

void Supervisor::requestRestart()
{
    switch (m_state) {
    case State::Idle:
        AGENT_WARN("restart asked for, but no gateway is supervised here");
        break;
    case State::Running:
        terminate("restart asked for");
        break;
    case State::Waiting:
        AGENT_INFO("restart asked for: starting the gateway now");
        m_lastDelayMs = 0;
        launch();
        break;
    case State::Stopping:
    case State::Done:
        break;  // already on its way
    }
}

void Supervisor::shutdown()
{
    m_shuttingDown = true;
    if (m_state == State::Running)
        terminate("agent stopping");
    else if (m_state != State::Stopping)
        m_state = State::Done;
}

void Supervisor::childEvent()
{
    if (m_pid <= 0)
        return;
    int status = 0;
    const pid_t r = waitpid(m_pid, &status, WNOHANG);
    // ECHILD: someone reaped it for us; it is gone all the same.
    if (r == m_pid || (r < 0 && errno == ECHILD))
        exited(status);
}

void Supervisor::exited(int status)
{
    const int pid = int(m_pid);
    m_pid = -1;
    m_hasDue = false;
    const QByteArray how = describeExit(status);
    if (m_state == State::Running) {
        waitThenStart("gateway pid " + QByteArray::number(pid) + " " + how);
    } else if (m_shuttingDown) {
        AGENT_INFO("gateway pid %d stopped (%s)", pid, how.constData());
        m_state = State::Done;
    } else {
        AGENT_INFO("gateway pid %d stopped (%s), starting it again", pid, how.constData());
        m_lastDelayMs = 0;
        launch();
    }
}

int Supervisor::msUntilDue() const
{
    if (!m_hasDue)
        return -1;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_due - Clock::now()).count();
    // Rounded up: waking a millisecond early would only poll again.
    return left <= 0 ? 0 : int(left) + 1;
}

void Supervisor::onTimer()
{
    if (!m_hasDue || Clock::now() < m_due)
        return;
    m_hasDue = false;
    if (m_state == State::Waiting && !m_shuttingDown) {
        launch();
    } else if (m_state == State::Stopping && !m_killed) {
        AGENT_WARN("gateway pid %d did not stop within %s, sending SIGKILL", int(m_pid),
                   seconds(m_settings.stopTimeoutMs).constData());
        kill(m_pid, SIGKILL);
        m_killed = true;
    }
}

}  // namespace agent
