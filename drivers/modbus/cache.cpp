#include "cache.h"

#include <algorithm>

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
    const auto &space = m_spaces[static_cast<size_t>(spaceIndex(station, area))];
    return space ? space->pages[static_cast<size_t>(address / kPageCells)].get() : nullptr;
}

Cache::Page &Cache::ensurePage(int station, Area area, int address)
{
    auto &space = m_spaces[static_cast<size_t>(spaceIndex(station, area))];
    if (!space)
        space = std::make_unique<Space>();
    auto &p = space->pages[static_cast<size_t>(address / kPageCells)];
    if (!p)
        p = std::make_unique<Page>();
    return *p;
}

bool Cache::known(int station, Area area, int address) const
{
    const Page *p = page(station, area, address);
    return p && p->known.test(static_cast<size_t>(address % kPageCells));
}

bool Cache::load(int station, Area area, int start, int count, uint16_t *cells) const
{
    if (!inRange(station, start, count))
        return false;
    for (int i = 0; i < count; ++i)
        if (!known(station, area, start + i))
            return false;
    for (int i = 0; i < count; ++i)
        cells[i] = page(station, area, start + i)->value[static_cast<size_t>((start + i) % kPageCells)];
    return true;
}

void Cache::store(int station, Area area, int start, int count, const uint16_t *cells)
{
    if (!inRange(station, start, count))
        return;
    // A page at a time: every reply stores up to 125 registers.
    for (int i = 0; i < count;) {
        const int a = start + i;
        Page &p = ensurePage(station, area, a);
        const int at = a % kPageCells;
        const int n = std::min(count - i, kPageCells - at);
        std::copy(cells + i, cells + i + n, p.value.begin() + at);
        std::fill(p.quality.begin() + at, p.quality.begin() + at + n, uint8_t(LUMBRA_QUALITY_GOOD));
        for (int k = at; k < at + n; ++k)
            p.known.set(static_cast<size_t>(k));
        i += n;
    }
}

void Cache::mark(int station, Area area, int start, int count, int quality)
{
    if (!inRange(station, start, count))
        return;
    for (int i = 0; i < count; ++i)
        ensurePage(station, area, start + i).quality[static_cast<size_t>((start + i) % kPageCells)] =
            static_cast<uint8_t>(quality);
}

int Cache::read(int station, Area area, int start, int count, uint16_t *cells, bool *known) const
{
    *known = false;
    if (!inRange(station, start, count))
        return LUMBRA_QUALITY_NOT_READ;
    int worst = LUMBRA_QUALITY_GOOD;
    bool all = true;
    for (int i = 0; i < count; ++i) {
        const Page *p = page(station, area, start + i);
        const size_t at = static_cast<size_t>((start + i) % kPageCells);
        const int q = p ? p->quality[at] : LUMBRA_QUALITY_NOT_READ;
        if (worst == LUMBRA_QUALITY_GOOD && q != LUMBRA_QUALITY_GOOD)
            worst = q;
        if (!p || !p->known.test(at))
            all = false;
        else
            cells[i] = p->value[at];
    }
    *known = all;
    return worst;
}

int Cache::quality(int station, Area area, int start, int count) const
{
    if (!inRange(station, start, count))
        return LUMBRA_QUALITY_NOT_READ;
    for (int i = 0; i < count; ++i) {
        const Page *p = page(station, area, start + i);
        int q = p ? p->quality[static_cast<size_t>((start + i) % kPageCells)] : LUMBRA_QUALITY_NOT_READ;
        if (q != LUMBRA_QUALITY_GOOD)
            return q;
    }
    return LUMBRA_QUALITY_GOOD;
}

}  // namespace lumbra::modbus
