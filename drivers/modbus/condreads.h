// Reads asked for once (intf_addConditionRead): served after the queued
// writes and ahead of the round-robin polls, merged by the polls' block rules.
#pragma once

#include "plan.h"
#include "settings.h"

#include <cstddef>
#include <vector>

namespace lumbra::modbus {

// Cells of one station and area.
struct Span {
    int station = 0;
    Area area = Area::HoldingRegisters;
    int start = 0;
    int count = 0;
    int end() const { return start + count; }
};

class ConditionReads {
public:
    // A script names a few new addresses at a time; a queue this long is a
    // flood, and every poll of the link would wait behind it.
    static constexpr size_t kMaxQueued = 256;

    enum class Added { Queued, AlreadyQueued, Full };
    Added add(const Span &s);
    bool empty() const { return m_spans.empty(); }
    // The next request: the block that the block rules make around the
    // oldest waiting span. The cells it reads leave the queue; *taken gets
    // the waiting spans it covers, cut to the block.
    bool next(const Settings &s, const Barriers &barriers, Block *out, std::vector<Span> *taken);
    // Spans that go first again (the pieces of a block the device refused).
    void requeue(const std::vector<Span> &spans);
    // What waits for this station leaves the queue into *dropped.
    void dropStation(int station, std::vector<Span> *dropped);

private:
    std::vector<Span> m_spans;  // oldest first
    std::vector<Entry> m_group;
};

// The spans as entries of one block, for splitPoints().
std::vector<Entry> spanEntries(const std::vector<Span> &spans, Block *block);

}  // namespace lumbra::modbus
