#include "signals.h"

namespace plcsim {

namespace {

volatile sig_atomic_t g_stop = 0;

void onStop(int)
{
    g_stop = 1;
}

}  // namespace

StopSignals::StopSignals()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, &m_oldMask);
    m_waitMask = m_oldMask;
    sigdelset(&m_waitMask, SIGINT);
    sigdelset(&m_waitMask, SIGTERM);

    struct sigaction sa {};
    sa.sa_handler = onStop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    // A master gone mid-reply must not end the simulator.
    signal(SIGPIPE, SIG_IGN);
}

StopSignals::~StopSignals()
{
    sigprocmask(SIG_SETMASK, &m_oldMask, nullptr);
}

bool StopSignals::requested() const
{
    return g_stop != 0;
}

}  // namespace plcsim
