#include "condreads.h"

#include <algorithm>

namespace lumbra::modbus {

namespace {

Entry entryOf(const Span &s)
{
    Entry e;
    e.station = s.station;
    e.target.area = s.area;
    e.target.address = s.start;
    e.count = s.count;
    return e;
}

bool sameGroup(const Span &a, int station, Area area)
{
    return a.station == station && a.area == area;
}

bool byCells(const Entry &a, const Entry &b)
{
    return a.firstCell() != b.firstCell() ? a.firstCell() < b.firstCell() : a.cellCount() < b.cellCount();
}

}  // namespace

ConditionReads::Added ConditionReads::add(const Span &s)
{
    for (const Span &w : m_spans)
        if (sameGroup(w, s.station, s.area) && w.start <= s.start && s.end() <= w.end())
            return Added::AlreadyQueued;
    if (m_spans.size() >= kMaxQueued)
        return Added::Full;
    m_spans.push_back(s);
    return Added::Queued;
}

// Oldest first, so that a stream of new requests cannot keep one waiting;
// the spans of its station and area that the block rules let ride along go
// in the same request.
bool ConditionReads::next(const Settings &s, const Barriers &barriers, Block *out, std::vector<Span> *taken)
{
    if (m_spans.empty())
        return false;
    const Span first = m_spans.front();
    m_group.clear();
    for (const Span &w : m_spans)
        if (sameGroup(w, first.station, first.area))
            m_group.push_back(entryOf(w));
    std::sort(m_group.begin(), m_group.end(), byCells);
    const std::vector<Block> blocks = mergeBlocks(m_group, s, barriers);
    auto it = std::find_if(blocks.begin(), blocks.end(),
                           [&](const Block &b) { return b.start <= first.start && first.start < b.end(); });
    if (it == blocks.end())
        return false;  // cannot be: the block rules cover every cell asked for
    *out = *it;
    taken->clear();
    std::vector<Span> rest;
    rest.reserve(m_spans.size());
    for (const Span &w : m_spans) {
        if (!sameGroup(w, out->station, out->area) || w.end() <= out->start || w.start >= out->end()) {
            rest.push_back(w);
            continue;
        }
        const int from = std::max(w.start, out->start), to = std::min(w.end(), out->end());
        taken->push_back({w.station, w.area, from, to - from});
        if (w.start < out->start)
            rest.push_back({w.station, w.area, w.start, out->start - w.start});
        if (w.end() > out->end())
            rest.push_back({w.station, w.area, out->end(), w.end() - out->end()});
    }
    m_spans.swap(rest);
    return true;
}

void ConditionReads::requeue(const std::vector<Span> &spans)
{
    m_spans.insert(m_spans.begin(), spans.begin(), spans.end());
}

void ConditionReads::dropStation(int station, std::vector<Span> *dropped)
{
    dropped->clear();
    auto keep = std::stable_partition(m_spans.begin(), m_spans.end(),
                                      [&](const Span &w) { return w.station != station; });
    dropped->assign(keep, m_spans.end());
    m_spans.erase(keep, m_spans.end());
}

std::vector<Entry> spanEntries(const std::vector<Span> &spans, Block *block)
{
    std::vector<Entry> entries;
    entries.reserve(spans.size());
    for (const Span &s : spans)
        entries.push_back(entryOf(s));
    std::sort(entries.begin(), entries.end(), byCells);
    block->entries.resize(entries.size());
    for (size_t i = 0; i < entries.size(); ++i)
        block->entries[i] = static_cast<int>(i);
    return entries;
}

}  // namespace lumbra::modbus
