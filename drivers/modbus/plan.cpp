#include "plan.h"

#include "codec.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace lumbra::modbus {

namespace {

bool toEntry(const KEY_ADDRESS &k, int defaultStation, bool canPollBroadcast, Entry *out)
{
    Entry e;
    e.station = k.station < 0 ? defaultStation : k.station;
    if (e.station < (canPollBroadcast ? 0 : 1) || e.station >= 256)
        return false;
    // The fixed-size texts may arrive without a terminator.
    char reg[LUMBRA_REG_NAME_SIZE + 1] = {}, addr[LUMBRA_ADDR_TEXT_SIZE + 1] = {};
    std::memcpy(reg, k.reg, LUMBRA_REG_NAME_SIZE);
    std::memcpy(addr, k.addr, LUMBRA_ADDR_TEXT_SIZE);
    Area area;
    if (!parseArea(reg, &area) || parseAddress(area, addr, &e.target) != AddressCheck::Ok)
        return false;
    e.count = e.target.bitOfWord() ? 1 : std::max(1, static_cast<int>(k.len));
    Shape shape;
    if (!valueShape(e.target, e.count, &shape))
        return false;
    e.reg = reg;
    *out = std::move(e);
    return true;
}

auto entryKey(const Entry &e)
{
    return std::make_tuple(e.station, e.target.area, e.index(), e.count);
}

auto blockKey(const Entry &e)
{
    return std::make_tuple(e.station, e.target.area, e.firstCell(), e.cellCount());
}

bool sameGroup(const Block &b, const Entry &e)
{
    return b.station == e.station && b.area == e.target.area;
}

}  // namespace

std::vector<Entry> pollEntries(const KEY_ADDRESS *list, int count, int defaultStation, bool canPollBroadcast)
{
    std::vector<Entry> entries;
    for (int i = 0; list && i < count; ++i) {
        Entry e;
        if (toEntry(list[i], defaultStation, canPollBroadcast, &e))
            entries.push_back(std::move(e));
    }
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) { return entryKey(a) < entryKey(b); });
    auto same = [](const Entry &a, const Entry &b) { return entryKey(a) == entryKey(b); };
    entries.erase(std::unique(entries.begin(), entries.end(), same), entries.end());
    return entries;
}

// Spans sorted by start are swept once; a span joins the open block when the
// unused gap before it is small enough and the block stays within one
// request. Longer spans are cut into requests of the maximum size.
std::vector<Block> mergeBlocks(const std::vector<Entry> &entries, const Settings &s)
{
    std::vector<const Entry *> spans;
    for (const Entry &e : entries)
        spans.push_back(&e);
    std::sort(spans.begin(), spans.end(), [](const Entry *a, const Entry *b) { return blockKey(*a) < blockKey(*b); });

    std::vector<Block> blocks;
    for (const Entry *e : spans) {
        bool bits = isBitArea(e->target.area);
        int limit = bits ? s.maxBits : s.maxRegisters, gap = bits ? s.maxBitGap : s.maxGap;
        int begin = e->firstCell(), end = begin + e->cellCount();
        if (!blocks.empty() && sameGroup(blocks.back(), *e)) {
            Block &b = blocks.back();
            int blockEnd = b.start + b.count;
            if (end <= blockEnd)
                continue;
            if (begin <= blockEnd + gap && end - b.start <= limit) {
                b.count = end - b.start;
                continue;
            }
            begin = std::max(begin, blockEnd);
        }
        for (; begin < end; begin += limit)
            blocks.push_back({e->station, e->target.area, begin, std::min(limit, end - begin)});
    }
    return blocks;
}

}  // namespace lumbra::modbus
