#include "cache.h"

namespace lumbra::modbus {

namespace {

int spaceIndex(int station, Area area)
{
    return station * kAreaCount + static_cast<int>(area);
}

bool inRange(int station, int start, int count)
{
    return station >= 0 && station < kStationCount && start >= 0 && count >= 0 && start + count <= kAddressSpace;
}

}  // namespace

const Cache::Page *Cache::page(int station, Area area, int address) const
{
    const auto &space = m_spaces[spaceIndex(station, area)];
    return space ? space->pages[address / kPageCells].get() : nullptr;
}

bool Cache::known(int station, Area area, int address) const
{
    if (!inRange(station, address, 1))
        return false;
    const Page *p = page(station, area, address);
    return p && p->known.test(address % kPageCells);
}

bool Cache::load(int station, Area area, int start, int count, uint16_t *cells) const
{
    if (!inRange(station, start, count))
        return false;
    for (int i = 0; i < count; ++i)
        if (!known(station, area, start + i))
            return false;
    for (int i = 0; i < count; ++i)
        cells[i] = page(station, area, start + i)->value[(start + i) % kPageCells];
    return true;
}

void Cache::store(int station, Area area, int start, int count, const uint16_t *cells)
{
    if (!inRange(station, start, count))
        return;
    auto &space = m_spaces[spaceIndex(station, area)];
    if (!space)
        space = std::make_unique<Space>();
    for (int i = 0; i < count; ++i) {
        int a = start + i;
        auto &p = space->pages[a / kPageCells];
        if (!p)
            p = std::make_unique<Page>();
        p->value[a % kPageCells] = cells[i];
        p->known.set(a % kPageCells);
    }
}

}  // namespace lumbra::modbus
