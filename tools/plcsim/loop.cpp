#include "loop.h"

#include "plcmap.h"
#include "signals.h"
#include "transport.h"

#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace plcsim {

namespace {

using Clock = std::chrono::steady_clock;

// Updates fall on a fixed grid from the start; after a stall (a suspended
// process) the missed ones are skipped, not caught up in a burst.
class Ticker {
public:
    explicit Ticker(int periodMs) : m_period(periodMs), m_next(Clock::now()) {}

    bool due(Clock::time_point now) const { return now >= m_next; }
    void advance(Clock::time_point now)
    {
        m_next += m_period;
        if (m_next <= now)
            m_next = now + m_period;
    }
    timespec left(Clock::time_point now) const
    {
        const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(m_next - now).count();
        const long long wait = ns > 0 ? ns : 0;
        return timespec{static_cast<time_t>(wait / 1000000000), static_cast<long>(wait % 1000000000)};
    }

private:
    std::chrono::milliseconds m_period;
    Clock::time_point m_next;
};

}  // namespace

int runLoop(Transport &transport, PlcMap &map, int rateMs, const StopSignals &stop)
{
    const Clock::time_point start = Clock::now();
    Ticker ticker(rateMs);
    std::vector<pollfd> fds;
    while (!stop.requested()) {
        Clock::time_point now = Clock::now();
        if (ticker.due(now)) {
            map.update(Moment::now(std::chrono::duration<double>(now - start).count()));
            ticker.advance(now);
        }
        fds.clear();
        transport.addFds(fds);
        const timespec wait = ticker.left(Clock::now());
        const int n = ppoll(fds.data(), fds.size(), &wait, stop.waitMask());
        if (n < 0 && errno != EINTR) {
            std::fprintf(stderr, "plcsim: waiting for masters failed: %s\n", std::strerror(errno));
            return 1;
        }
        if (n > 0)
            transport.serve(fds);
    }
    return 0;
}

}  // namespace plcsim
