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
    void replace(std::vector<Block> blocks);
    // Null only when there is nothing to poll.
    const Block *next();
    void markDown(int station);
    int size() const { return static_cast<int>(m_blocks.size()); }

private:
    std::vector<Block> m_blocks;
    size_t m_cursor = 0;
    std::bitset<256> m_down;
};

}  // namespace lumbra::modbus
