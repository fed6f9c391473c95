#include "writes.h"

#include <lumbra/driver.h>

#include <algorithm>
#include <climits>
#include <cstdio>

namespace lumbra::modbus {

namespace {

// A dead station must not let writes pile up without bound.
constexpr size_t kMaxQueuedWrites = 256;

void writeText(char *text, int size, const char *value)
{
    if (text && size > 0)
        std::snprintf(text, static_cast<size_t>(size), "%s", value);
}

}  // namespace

bool Writes::full() const
{
    return m_queue.size() >= kMaxQueuedWrites;
}

int Writes::push(WriteOp op, bool tracked)
{
    if (tracked) {
        m_lastTicket = m_lastTicket == INT_MAX ? 1 : m_lastTicket + 1;
        op.ticket = m_lastTicket;
    }
    m_queue.push_back(std::move(op));
    return m_queue.back().ticket;
}

void Writes::record(int ticket, int state, const char *reason)
{
    if (ticket <= 0)
        return;
    Outcome &o = m_outcomes[m_nextOutcome];
    m_nextOutcome = (m_nextOutcome + 1) % m_outcomes.size();
    o.ticket = ticket;
    o.state = state;
    std::snprintf(o.reason, sizeof o.reason, "%s", reason ? reason : "");
}

void Writes::finishFront(int state, const char *reason)
{
    if (m_queue.empty())
        return;
    record(m_queue.front().ticket, state, reason);
    m_queue.pop_front();
}

bool Writes::cancel(int ticket, bool frontInFlight)
{
    if (ticket <= 0)
        return false;
    auto first = m_queue.begin() + (frontInFlight && !m_queue.empty() ? 1 : 0);
    auto it = std::find_if(first, m_queue.end(), [&](const WriteOp &op) { return op.ticket == ticket; });
    if (it == m_queue.end())
        return false;
    record(ticket, LUMBRA_WRITE_FAILED, "cancelled");
    m_queue.erase(it);
    return true;
}

int Writes::state(int ticket, char *text, int size) const
{
    writeText(text, size, "");
    if (ticket <= 0) {
        writeText(text, size, "unknown ticket");
        return LUMBRA_WRITE_FAILED;
    }
    for (const WriteOp &op : m_queue)
        if (op.ticket == ticket)
            return LUMBRA_WRITE_PENDING;
    for (const Outcome &o : m_outcomes)
        if (o.ticket == ticket) {
            writeText(text, size, o.reason);
            return o.state;
        }
    writeText(text, size, "unknown ticket");
    return LUMBRA_WRITE_FAILED;
}

}  // namespace lumbra::modbus
