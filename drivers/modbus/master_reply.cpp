// What a reply means: framing faults, failures, exceptions and values.
#include "master.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace lumbra::modbus {

namespace {

void writeText(char *text, int size, const char *value)
{
    if (text && size > 0)
        std::snprintf(text, static_cast<size_t>(size), "%s", value);
}

}  // namespace

int Master::onReply(const uint8_t *data, int len, char *text, int textSize)
{
    if (!m_ex.awaiting) {
        writeText(text, textSize, "");
        return LUMBRA_RESULT_INCOMPLETE;
    }
    if (text && textSize > 0) {
        // Every reply: digits written directly, not through printf.
        char digits[16];
        const auto end = std::to_chars(digits, digits + sizeof digits, m_ex.station).ptr;
        const int n = std::min(static_cast<int>(end - digits), textSize - 1);
        std::memcpy(text, digits, static_cast<size_t>(n));
        text[n] = '\0';
    }
    if (!data || len <= 0)
        return noReply();
    Scan s = scan(data, len);
    noteScan(s);
    m_ex.scanned = std::max(m_ex.scanned, s.scanned);
    m_ex.received = len;
    m_ex.announced = s.announced;
    if (!s.found) {
        // An ABI 1 gateway hands each reply once: what is missing now never comes.
        if (m_link.abi2())
            return LUMBRA_RESULT_NEED_MORE;
        return noReply();
    }
    m_ex.awaiting = false;
    if (s.unit != m_ex.station)
        m_log.once(faultKey(Fault::ForeignUnit), LUMBRA_LOG_INFO,
                   "station %d answers with unit id %d; its replies are taken by their transaction id", m_ex.station,
                   s.unit);
    const uint8_t *pdu = data + s.pdu;
    Reply r = checkReply(m_ex.pdu, pdu, s.pduLen);
    switch (r) {
    case Reply::Good:
        takeReply(pdu);
        return LUMBRA_RESULT_GOOD;
    case Reply::Exception:
        onException(pdu[1]);
        return LUMBRA_RESULT_GOOD;
    default:
        m_log.limited(faultKey(Fault::BadReply, m_ex.station, m_ex.area, m_ex.start, static_cast<int>(r)),
                      LUMBRA_LOG_WARN,
                      "station %d %s %d-%d: bad reply (%s)", m_ex.station, areaName(m_ex.area), firstNumber(),
                      lastNumber(), replyFault(r));
        return fail(replyFault(r));
    }
}

Scan Master::scan(const uint8_t *data, int len) const
{
    if (m_framing == Framing::Tcp)
        return scanTcp(data, len, m_ex.transaction, m_ex.scanned);
    return scanRtu(data, len, m_ex.station, m_ex.pdu);
}

void Master::noteScan(const Scan &s)
{
    if (s.garbage > 0 && m_framing == Framing::Tcp)
        m_log.limited(faultKey(Fault::Garbage), LUMBRA_LOG_WARN,
                      "%d bytes of garbage where a reply header was due; skipped", s.garbage);
    if (s.garbage > 0 && m_framing == Framing::Rtu)
        m_log.limited(faultKey(Fault::Noise), LUMBRA_LOG_WARN, "%d bytes of noise before the reply of station %d",
                      s.garbage, m_ex.station);
    if (s.foreign > 0)
        m_log.limited(faultKey(Fault::ForeignTransaction), LUMBRA_LOG_WARN,
                      "reply for another transaction (a late answer to an earlier request); skipped");
}

int Master::noReply()
{
    m_ex.awaiting = false;
    if (m_ex.received == 0)
        return fail("no reply");
    const uint64_t key = faultKey(Fault::Truncated, m_ex.station);
    if (m_framing == Framing::Rtu)
        m_log.limited(key, LUMBRA_LOG_WARN, "station %d: no valid reply in %d bytes", m_ex.station, m_ex.received);
    else if (m_ex.announced > 0)
        m_log.limited(key, LUMBRA_LOG_WARN, "station %d: truncated reply, its header announced %d bytes, %d arrived",
                      m_ex.station, m_ex.announced, m_ex.received);
    else
        m_log.limited(key, LUMBRA_LOG_WARN, "station %d: truncated reply, no whole frame in %d bytes", m_ex.station,
                      m_ex.received);
    return fail(m_framing == Framing::Rtu ? "no valid reply" : "truncated reply");
}

int Master::fail(const char *reason)
{
    m_ex.awaiting = false;
    int st = m_ex.station;
    if (m_ex.step == Step::Read) {
        if (++m_ex.failures <= m_link.retries)
            return LUMBRA_RESULT_INCOMPLETE;
        // Its cells need not lie in any poll block that stationDown marks.
        if (m_ex.conditionRead)
            m_cache.mark(st, m_ex.area, m_ex.start, m_ex.count, LUMBRA_QUALITY_NO_REPLY);
        m_ex = Exchange();
    } else {
        // Never retried: the gateway waits for its outcome one time-out at most.
        finishWrite(LUMBRA_WRITE_FAILED, reason);
        m_ex = Exchange();
        if (m_link.retries > 0)
            return LUMBRA_RESULT_INCOMPLETE;
    }
    stationDown(st);
    return LUMBRA_RESULT_STATION_FAILED;
}

void Master::finishWrite(int state, const char *reason)
{
    if (m_writes.empty())
        return;
    const WriteOp &op = m_writes.front();
    // A script that writes a dead device in a loop must not fill the log.
    if (state == LUMBRA_WRITE_FAILED)
        m_log.limited(faultKey(Fault::WriteFailed, op.station, op.target.area, op.target.address), LUMBRA_LOG_WARN,
                      "write to station %d %s %d%s refused: %s", op.station, areaName(op.target.area),
                      m_link.format.number(op.target.address), op.target.bitOfWord() ? " (bit)" : "", reason);
    m_writes.finishFront(state, reason);
}

// Every value of the station is old now; the round goes on without it, and
// the reads asked for it are answered at once: it has just not answered.
void Master::stationDown(int st)
{
    m_poller.markDown(st);
    for (const Block &b : m_poller.blocks())
        if (b.station == st)
            m_cache.mark(st, b.area, b.start, b.count, LUMBRA_QUALITY_NO_REPLY);
    m_conditionReads.dropStation(st, &m_dropped);
    for (const Span &w : m_dropped)
        m_cache.mark(st, w.area, w.start, w.count, LUMBRA_QUALITY_NO_REPLY);
    m_log.limited(faultKey(Fault::NoReply, st), LUMBRA_LOG_WARN, "station %d does not answer", st);
}

// The device is alive and said no; asking again will not change its mind.
void Master::onException(int code)
{
    char reason[80];
    std::snprintf(reason, sizeof reason, "exception %d (%s)", code, exceptionName(code));
    if (m_ex.step != Step::Read) {
        finishWrite(LUMBRA_WRITE_FAILED, reason);
        m_ex = Exchange();
        return;
    }
    // Cut before its cells are marked: a reader waiting for one that exists
    // must not see it refused in between.
    if (m_ex.conditionRead && code == kIllegalDataAddress && splitConditionRead()) {
        m_ex = Exchange();
        return;
    }
    m_cache.mark(m_ex.station, m_ex.area, m_ex.start, m_ex.count, LUMBRA_QUALITY_REFUSED);
    m_log.limited(faultKey(Fault::Exception, m_ex.station, m_ex.area, m_ex.start, code), LUMBRA_LOG_WARN,
                  "station %d %s %d-%d: %s", m_ex.station, areaName(m_ex.area), firstNumber(), lastNumber(), reason);
    Exchange refused = m_ex;
    m_ex = Exchange();
    if (code == kIllegalDataAddress && !refused.conditionRead)
        splitRefused(refused);
}

// A device with holes in its map refuses a read that spans one. Reading the
// configured runs (then the single entries) apart gets every address that
// exists; the cuts are kept, so no later merge joins them again.
void Master::splitRefused(const Exchange &ex)
{
    const Block *b = ex.plan == m_plan ? m_poller.find(ex.station, ex.area, ex.start) : nullptr;
    if (!b || b->count != ex.count)
        return;
    if (cutAt(ex.station, ex.area, ex.start, ex.count, splitPoints(*b, m_entries)))
        m_poller.seek(m_poller.find(ex.station, ex.area, ex.start));
}

// Condition reads merged across a hole: each is asked for on its own next,
// ahead of the others, and polls keep the cut too.
bool Master::splitConditionRead()
{
    const std::vector<Entry> entries = spanEntries(m_readSpans, &m_readBlock);
    if (!cutAt(m_ex.station, m_ex.area, m_ex.start, m_ex.count, splitPoints(m_readBlock, entries)))
        return false;
    m_conditionReads.requeue(m_readSpans);
    return true;
}

// False when there is nothing to cut or no room left to remember the cuts.
bool Master::cutAt(int st, Area area, int start, int count, const std::vector<int> &cuts)
{
    if (cuts.empty())
        return false;
    for (int cut : cuts)
        if (!m_barriers.add(st, area, cut)) {
            m_log.once(faultKey(Fault::Split), LUMBRA_LOG_WARN, "too many refused reads to remember; no more splits");
            return false;
        }
    m_log.line(LUMBRA_LOG_INFO, "station %d %s %d-%d: exception 2 for a read across several addresses; read in %d "
               "parts from now on", st, areaName(area), m_link.format.number(start),
               m_link.format.number(start + count - 1), static_cast<int>(cuts.size()) + 1);
    replan(true);
    return true;
}

void Master::takeReply(const uint8_t *pdu)
{
    if (m_ex.step == Step::Write) {
        applyWrite(m_writes.front());
        finishWrite(LUMBRA_WRITE_DONE, "");
        m_ex = Exchange();
        return;
    }
    if (m_cells.size() < static_cast<size_t>(m_ex.count))
        m_cells.resize(static_cast<size_t>(kMaxReadBits));
    replyCells(m_ex.pdu, pdu, m_cells.data());
    m_cache.store(m_ex.station, m_ex.area, m_ex.start, m_ex.count, m_cells.data());
    notify(m_ex.station, m_ex.area, m_ex.start, m_ex.count, exchangeBlock());
    if (m_ex.step == Step::Read) {
        m_ex = Exchange();
        return;
    }
    WriteOp &op = m_writes.front();
    if (op.cancelled) {
        finishWrite(LUMBRA_WRITE_FAILED, "cancelled");
        m_ex = Exchange();
        return;
    }
    uint16_t mask = static_cast<uint16_t>(1u << op.target.bit);
    op.cells[0] = static_cast<uint16_t>(op.cells[0] ? (m_cells[0] | mask) : (m_cells[0] & ~mask));
    op.fetched = true;
    startWrite();
}

// The device acknowledged: the cache takes the written value so that it reads
// back at once instead of after the next poll.
void Master::applyWrite(const WriteOp &op)
{
    const Target &t = op.target;
    if (t.bitOfWord() && m_settings.maskWrite) {
        uint16_t word;
        if (!m_cache.load(op.station, t.area, t.address, 1, &word))
            return;
        uint16_t mask = static_cast<uint16_t>(1u << t.bit);
        word = static_cast<uint16_t>(op.cells[0] ? (word | mask) : (word & ~mask));
        m_cache.store(op.station, t.area, t.address, 1, &word);
    } else {
        m_cache.store(op.station, t.area, t.address, static_cast<int>(op.cells.size()), op.cells.data());
    }
    notify(op.station, t.area, t.address, static_cast<int>(op.cells.size()), nullptr);
}

// Entries of `block` when it is known, else every entry of the poll set.
void Master::notify(int st, Area area, int start, int count, const Block *block)
{
    // Nobody listens: the comparisons below are the larger part of a reply.
    if (!m_callback)
        return;
    m_changes.clear();
    auto visit = [&](Entry &e) {
        if (e.station != st || e.target.area != area)
            return;
        if (e.firstCell() + e.cellCount() <= start || e.firstCell() >= start + count)
            return;
        if (noteChange(e)) {
            Change c;
            std::memcpy(c.reg.data(), e.reg, c.reg.size());
            c.index = e.index();
            m_changes.push_back(c);
        }
    };
    if (block)
        for (int i : block->entries)
            visit(m_entries[static_cast<size_t>(i)]);
    else
        for (Entry &e : m_entries)
            visit(e);
    // Called after the walk, so a callback that re-enters cannot pull the
    // entry list from under it.
    for (const Change &c : m_changes)
        if (m_callback)
            m_callback(m_link.linkId, st, c.reg.data(), c.index);
}

// True when what consumers see of the entry changed; it then remembers it.
bool Master::noteChange(Entry &e)
{
    size_t n = static_cast<size_t>(e.cellCount());
    if (m_valueCells.size() < n)
        m_valueCells.resize(n);
    uint16_t *now = m_valueCells.data();
    if (!m_cache.load(e.station, e.target.area, e.firstCell(), e.cellCount(), now))
        return false;
    if (e.target.bitOfWord())
        now[0] = (now[0] >> e.target.bit) & 1;
    if (e.image.size() == n && std::equal(now, now + n, e.image.begin()))
        return false;
    e.image.assign(now, now + n);
    return true;
}

}  // namespace lumbra::modbus
