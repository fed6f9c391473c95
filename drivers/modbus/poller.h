// Round-robin over the read blocks, skipping stations that already failed in
// the current round so one dead device does not stall the healthy ones.
#pragma once

#include "plan.h"

#include <bitset>
#include <cstddef>
#include <vector>

namespace lumbra::modbus {

class Poller {
public:
    // A new poll set starts a new round; a re-cut one (`sameRound`) goes on
    // where the old one was.
    void replace(std::vector<Block> blocks, bool sameRound = false);
    // Null only when there is nothing to poll.
    const Block *next();
    void markDown(int station);
    // The block starting at this address, or null.
    const Block *find(int station, Area area, int start) const;
    // The next block handed out is this one.
    void seek(const Block *b);
    const std::vector<Block> &blocks() const { return m_blocks; }
    int size() const { return static_cast<int>(m_blocks.size()); }

private:
    std::vector<Block> m_blocks;
    size_t m_cursor = 0;
    std::bitset<kStationCount> m_down;
};

}  // namespace lumbra::modbus
