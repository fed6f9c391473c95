#include "poller.h"

namespace lumbra::modbus {

void Poller::replace(std::vector<Block> blocks)
{
    m_blocks = std::move(blocks);
    m_cursor = 0;
    m_down.reset();
}

const Block *Poller::next()
{
    if (m_blocks.empty())
        return nullptr;
    // Within one pass the cursor crosses block 0 at most once, and crossing
    // it forgives every station, so this always finds a block.
    for (size_t tries = 0; tries <= m_blocks.size(); ++tries) {
        if (m_cursor == 0)
            m_down.reset();
        const Block &b = m_blocks[m_cursor];
        m_cursor = (m_cursor + 1) % m_blocks.size();
        if (!m_down.test(static_cast<size_t>(b.station)))
            return &b;
    }
    return nullptr;
}

void Poller::markDown(int station)
{
    if (station >= 0 && station < static_cast<int>(m_down.size()))
        m_down.set(static_cast<size_t>(station));
}

}  // namespace lumbra::modbus
