#include "plan.h"

#include "codec.h"

#include <algorithm>
#include <bitset>
#include <cstring>
#include <tuple>

namespace lumbra::modbus {

namespace {

// Every configured address of a big link may end up cut from its
// neighbours; past this the device just keeps refusing the block.
constexpr size_t kMaxBarriers = 16384;

}  // namespace

bool keyEntry(const KEY_ADDRESS &k, int defaultStation, bool canPollBroadcast, const AddressFormat &format,
              bool byIndex, Entry *out)
{
    Entry e;
    e.station = k.station < 0 ? defaultStation : k.station;
    if (e.station < (canPollBroadcast ? 0 : 1) || e.station >= kStationCount)
        return false;
    // The fixed-size texts may arrive without a terminator.
    char reg[LUMBRA_REG_NAME_SIZE + 1] = {}, addr[LUMBRA_ADDR_TEXT_SIZE + 1] = {};
    std::memcpy(reg, k.reg, LUMBRA_REG_NAME_SIZE);
    std::memcpy(addr, k.addr, LUMBRA_ADDR_TEXT_SIZE);
    Area area;
    if (!parseArea(reg, &area))
        return false;
    if (byIndex && k.index >= 0 ? !decodeIndex(area, k.index, &e.target)
                                : parseAddress(area, addr, format, &e.target) != AddressCheck::Ok)
        return false;
    e.count = e.target.bitOfWord() ? 1 : std::max(1, static_cast<int>(k.len));
    Shape shape;
    if (!valueShape(e.target, e.count, LUMBRA_KIND_RAW, &shape))
        return false;
    std::memcpy(e.reg, reg, sizeof e.reg);
    *out = std::move(e);
    return true;
}

namespace {

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

uint32_t barrierKey(int station, Area area, int address)
{
    return (static_cast<uint32_t>(station) << 18) | (static_cast<uint32_t>(area) << 16) |
           static_cast<uint32_t>(address);
}

}  // namespace

bool Barriers::add(int station, Area area, int address)
{
    if (m_cuts.size() >= kMaxBarriers)
        return false;
    m_cuts.insert(barrierKey(station, area, address));
    return true;
}

bool Barriers::within(int station, Area area, int from, int to) const
{
    if (m_cuts.empty() || from >= to)
        return false;
    auto it = m_cuts.lower_bound(barrierKey(station, area, from));
    return it != m_cuts.end() && *it < barrierKey(station, area, to);
}

std::vector<Entry> pollEntries(const KEY_ADDRESS *list, int count, int defaultStation, bool canPollBroadcast,
                               const AddressFormat &format)
{
    std::vector<Entry> entries;
    // Sized once: grown by doubling, a list of ten thousand entries would hold
    // half as much again for a moment, and keep up to twice its size.
    entries.reserve(static_cast<size_t>(list && count > 0 ? count : 0));
    for (int i = 0; list && i < count; ++i) {
        Entry e;
        if (keyEntry(list[i], defaultStation, canPollBroadcast, format, false, &e))
            entries.push_back(std::move(e));
    }
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) { return entryKey(a) < entryKey(b); });
    auto same = [](const Entry &a, const Entry &b) { return entryKey(a) == entryKey(b); };
    entries.erase(std::unique(entries.begin(), entries.end(), same), entries.end());
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry &a, const Entry &b) { return blockKey(a) < blockKey(b); });
    // Kept for as long as the poll set: no room for the growth it never has.
    entries.shrink_to_fit();
    return entries;
}

// Spans sorted by start are swept once; a span joins the open block when the
// unused gap before it is small enough, the block stays within one request
// and the device never refused a read across that point. Longer spans are
// cut into requests of the maximum size.
std::vector<Block> mergeBlocks(const std::vector<Entry> &entries, const Settings &s, const Barriers &barriers)
{
    std::vector<Block> blocks;
    for (int i = 0; i < static_cast<int>(entries.size()); ++i) {
        const Entry &e = entries[static_cast<size_t>(i)];
        bool bits = isBitArea(e.target.area);
        int limit = bits ? s.maxBits : s.maxRegisters, gap = bits ? s.maxBitGap : s.maxGap;
        int begin = e.firstCell(), end = begin + e.cellCount();
        if (!blocks.empty() && sameGroup(blocks.back(), e)) {
            Block &b = blocks.back();
            if (end <= b.end()) {
                b.entries.push_back(i);
                continue;
            }
            if (begin <= b.end() + gap && end - b.start <= limit &&
                !barriers.within(e.station, e.target.area, b.end(), end)) {
                b.count = end - b.start;
                b.entries.push_back(i);
                continue;
            }
            if (begin < b.end())
                b.entries.push_back(i);
            begin = std::max(begin, b.end());
        }
        for (; begin < end; begin += limit)
            blocks.push_back({e.station, e.target.area, begin, std::min(limit, end - begin), {i}});
    }
    return blocks;
}

std::vector<int> splitPoints(const Block &b, const std::vector<Entry> &entries)
{
    std::bitset<kMaxReadBits> covered;
    std::vector<int> cuts;
    for (int i : b.entries) {
        const Entry &e = entries[static_cast<size_t>(i)];
        int from = std::max(e.firstCell(), b.start), to = std::min(e.firstCell() + e.cellCount(), b.end());
        for (int a = from; a < to; ++a)
            covered.set(static_cast<size_t>(a - b.start));
        if (e.firstCell() > b.start && e.firstCell() < b.end())
            cuts.push_back(e.firstCell());
    }
    if (static_cast<int>(covered.count()) < b.count) {
        cuts.clear();
        for (int a = 1; a < b.count; ++a)
            if (covered.test(static_cast<size_t>(a)) && !covered.test(static_cast<size_t>(a - 1)))
                cuts.push_back(b.start + a);
    }
    std::sort(cuts.begin(), cuts.end());
    cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
    return cuts;
}

}  // namespace lumbra::modbus
