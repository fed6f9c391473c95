#include "poller.h"

#include <algorithm>

namespace lumbra::modbus {

void Poller::replace(std::vector<Block> blocks, bool sameRound)
{
    m_blocks = std::move(blocks);
    if (sameRound && m_cursor < m_blocks.size())
        return;
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
    if (station >= 0 && station < kStationCount)
        m_down.set(static_cast<size_t>(station));
}

const Block *Poller::find(int station, Area area, int start) const
{
    auto it = std::find_if(m_blocks.begin(), m_blocks.end(), [&](const Block &b) {
        return b.station == station && b.area == area && b.start == start;
    });
    return it == m_blocks.end() ? nullptr : &*it;
}

void Poller::seek(const Block *b)
{
    if (b && b >= m_blocks.data() && b < m_blocks.data() + m_blocks.size())
        m_cursor = static_cast<size_t>(b - m_blocks.data());
}

}  // namespace lumbra::modbus
