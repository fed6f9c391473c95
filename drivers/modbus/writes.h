// Writes waiting to go out, and what became of the recent ones, by ticket.
#pragma once

#include "address.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace lumbra::modbus {

struct WriteOp {
    int ticket = 0;  // 0: nobody asks how it ended (the ABI 1 setData)
    int station = 0;
    Target target;
    std::vector<uint16_t> cells;  // for a bit of a word: its value, then the whole new word
    bool fetched = false;         // the word of a bit was read fresh
    bool cancelled = false;       // its waiter gave up while it was in flight
};

class Writes {
public:
    bool empty() const { return m_queue.empty(); }
    bool full() const;
    WriteOp &front() { return m_queue.front(); }
    // Queues op; with `tracked` it gets a ticket (returned), else 0.
    int push(WriteOp op, bool tracked);
    // The front write ended; `reason` says why when it failed.
    void finishFront(int state, const char *reason);
    // Drops a queued write that is not the one in flight: false when there is none.
    bool cancel(int ticket, bool frontInFlight);
    // A LUMBRA_WRITE_* state, with the reason of a failure in text.
    int state(int ticket, char *text, int size) const;

private:
    struct Outcome {
        int ticket = 0;
        int state = 0;
        char reason[64] = {};
    };
    void record(int ticket, int state, const char *reason);

    std::deque<WriteOp> m_queue;
    // The last outcomes; a gateway asks right after the write, so a few
    // hundred cover every waiter.
    std::array<Outcome, 256> m_outcomes{};
    size_t m_nextOutcome = 0;
    int m_lastTicket = 0;
};

}  // namespace lumbra::modbus
