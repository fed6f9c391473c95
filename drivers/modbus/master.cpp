#include "master.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <tuple>

namespace lumbra::modbus {

namespace {

bool fitsOneWrite(const Target &t, int cells)
{
    return t.bitOfWord() || cells <= (isBitArea(t.area) ? kMaxWriteCoils : kMaxWriteRegisters);
}

}  // namespace

int Master::initProperty(const unsigned char *info, const int *size)
{
    m_orderOf = -1;
    return readLinkInfo(info, size, m_log, &m_link) ? 0 : -1;
}

int Master::setProperty(const char *text)
{
    Settings parsed;
    bool ok = parseSettings(text, &parsed);
    if (!ok)
        m_log.line(LUMBRA_LOG_WARN, "driver_property \"%s\" is not understood: defaults apply", text ? text : "");
    m_settings = ok ? parsed : Settings();
    m_orderOf = -1;
    replan();
    return ok ? 0 : -1;
}

int Master::merge(const KEY_ADDRESS *list, int count)
{
    if (count < 0 || (count > 0 && !list))
        return -1;
    // Consumers that already saw a value hear of it again only when it
    // changes; a newly registered address hears its first value.
    std::map<std::tuple<int, Area, int, int>, std::vector<uint16_t>> seen;
    for (Entry &e : m_entries)
        seen[{e.station, e.target.area, e.index(), e.count}] = std::move(e.image);
    m_entries = pollEntries(list, count, m_link.plcId, m_framing == Framing::Tcp, m_link.format);
    for (Entry &e : m_entries) {
        auto it = seen.find({e.station, e.target.area, e.index(), e.count});
        if (it != seen.end())
            e.image = std::move(it->second);
    }
    replan();
    return m_poller.size();
}

void Master::replan(bool sameRound)
{
    m_poller.replace(mergeBlocks(m_entries, m_settings, m_barriers), sameRound);
    ++m_plan;
}

// The byte order of the last station asked for is kept: reads come by the
// thousand, mostly for one station.
Order Master::stationOrder(int st) const
{
    if (st != m_orderOf) {
        m_order = orderFor(m_link, m_settings, st);
        m_orderOf = st;
    }
    return m_order;
}

const Block *Master::exchangeBlock() const
{
    if (m_ex.plan != m_plan || m_ex.block < 0 || m_ex.block >= m_poller.size())
        return nullptr;
    return &m_poller.blocks()[static_cast<size_t>(m_ex.block)];
}

int Master::checkAddress(const char *reg, const char *addr, int *index, int st) const
{
    Area area;
    Target t;
    if (!index || station(st) >= kStationCount || !parseArea(reg, &area))
        return -1;
    switch (parseAddress(area, addr, m_link.format, &t)) {
    case AddressCheck::Ok: *index = encodeIndex(t); return LUMBRA_ADDR_OK;
    case AddressCheck::RetryPlain: return LUMBRA_ADDR_RETRY_PLAIN;
    case AddressCheck::Invalid: break;
    }
    return -1;
}

// Nobody answers an RTU broadcast: station 0 is read only where it is a
// real unit id (TCP), and written on RTU only by a gateway that knows not to
// wait for the answer.
bool Master::resolve(int st, const char *reg, int index, int count, int kind, const void *data, int len, bool write,
                     Value *out) const
{
    Area area;
    Value v;
    v.station = station(st);
    int lowest = m_framing == Framing::Tcp || (write && m_link.abi2()) ? 0 : 1;
    if (!data || v.station < lowest || v.station >= kStationCount || !parseArea(reg, &area) ||
        !decodeIndex(area, index, &v.target))
        return false;
    if (!valueShape(v.target, count, kind, &v.shape) || len < v.shape.bytes)
        return false;
    *out = v;
    return true;
}

int Master::getValue(int st, const char *reg, int index, int count, int kind, uint8_t *data, int len,
                     int *quality) const
{
    Value v;
    if (!resolve(st, reg, index, count, kind, data, len, false, &v))
        return -1;
    const Target &t = v.target;
    if (m_valueCells.size() < static_cast<size_t>(v.shape.cells))
        m_valueCells.resize(static_cast<size_t>(v.shape.cells));
    bool known = false;
    const int q = m_cache.read(v.station, t.area, t.address, v.shape.cells, m_valueCells.data(), &known);
    if (quality)
        *quality = q;
    if (!known) {
        std::memset(data, 0, static_cast<size_t>(v.shape.bytes));
        return 0;
    }
    cellsToBytes(t, m_valueCells.data(), count, kind, stationOrder(v.station), data);
    return 1;
}

int Master::setValue(int st, const char *reg, int index, int count, int kind, const uint8_t *data, int len,
                     int *ticket)
{
    Value v;
    if (!resolve(st, reg, index, count, kind, data, len, true, &v) || !isWritable(v.target.area))
        return -1;
    if (!fitsOneWrite(v.target, v.shape.cells) || m_writes.full())
        return -1;
    // A read-modify-write needs the word back, which a broadcast never brings.
    if (m_framing == Framing::Rtu && v.station == 0 && v.target.bitOfWord() && !m_settings.maskWrite)
        return -1;
    WriteOp op;
    op.station = v.station;
    op.target = v.target;
    op.cells.resize(static_cast<size_t>(v.shape.cells));
    bytesToCells(v.target, data, count, kind, orderFor(m_link, m_settings, v.station), op.cells.data());
    int t = m_writes.push(std::move(op), ticket != nullptr);
    if (ticket)
        *ticket = t;
    return 1;
}

// Entries are taken by index where the gateway has one: that is the value
// its waiting reader asks for.
int Master::addConditionRead(const KEY_ADDRESS *list, int count)
{
    if (count < 0 || (count > 0 && !list))
        return -1;
    int queued = 0;
    for (int i = 0; i < count; ++i) {
        Entry e;
        if (!keyEntry(list[i], m_link.plcId, m_framing == Framing::Tcp, m_link.format, true, &e))
            continue;
        const Span s{e.station, e.target.area, e.firstCell(), e.cellCount()};
        if (m_conditionReads.add(s) != ConditionReads::Added::Full) {
            ++queued;
            continue;
        }
        m_log.limited(faultKey(Fault::Flooded), LUMBRA_LOG_WARN,
                      "condition read of station %d %s %d dropped: %d wait already", s.station, areaName(s.area),
                      m_link.format.number(s.start), static_cast<int>(ConditionReads::kMaxQueued));
    }
    return queued;
}

// A write not sent yet is dropped; one in flight runs its course but is
// never tried again.
void Master::cancelWrite(int ticket)
{
    if (writeInFlight() && m_writes.front().ticket == ticket) {
        if (m_ex.step == Step::Write && !m_ex.awaiting) {
            finishWrite(LUMBRA_WRITE_FAILED, "cancelled");
            m_ex = Exchange();
        } else {
            m_writes.front().cancelled = true;
        }
        return;
    }
    m_writes.cancel(ticket, writeInFlight());
}

int Master::nextFrame(FRAME_PRO *frame)
{
    if (!frame)
        return 0;
    frame->len = 0;
    if (m_disconnected.exchange(false))
        dropOutstanding();
    // A frame whose reply never came back: a read goes again, a write does
    // not (its waiter has a deadline).
    if (m_ex.awaiting && writeInFlight())
        fail("no reply");
    // Writes go ahead of a read that waits for its retry.
    if (m_ex.active && !m_ex.awaiting && m_ex.step == Step::Read && !m_writes.empty() && !m_parked.active) {
        m_parked = m_ex;
        m_ex = Exchange();
    }
    if (!m_ex.active && !startNext())
        return 0;
    m_ex.transaction = ++m_transaction;
    int len = wrapRequest(m_framing, m_ex.station, m_ex.pdu, m_ex.transaction, frame->data, LUMBRA_FRAME_SIZE);
    if (len <= 0)
        return 0;
    frame->len = len;
    if (broadcast()) {
        finishWrite(LUMBRA_WRITE_DONE, "");
        m_ex = Exchange();
        return LUMBRA_FRAME_NO_REPLY;
    }
    m_ex.awaiting = true;
    m_ex.scanned = m_ex.received = m_ex.announced = 0;
    return 1;
}

void Master::dropOutstanding()
{
    m_transaction = 0;
    if (!m_ex.awaiting)
        return;
    if (writeInFlight()) {
        finishWrite(LUMBRA_WRITE_FAILED, "no reply (connection lost)");
        m_ex = Exchange();
        return;
    }
    m_ex.awaiting = false;
}

bool Master::startNext()
{
    if (!m_writes.empty()) {
        startWrite();
        return true;
    }
    if (m_parked.active) {
        m_ex = m_parked;
        m_parked = Exchange();
        return true;
    }
    if (m_conditionReads.next(m_settings, m_barriers, &m_readBlock, &m_readSpans)) {
        startRead(m_readBlock, -1);
        m_ex.conditionRead = true;
        return true;
    }
    const Block *b = m_poller.next();
    if (!b)
        return false;
    startRead(*b, static_cast<int>(b - m_poller.blocks().data()));
    return true;
}

void Master::startRead(const Block &b, int index)
{
    m_ex = Exchange();
    m_ex.active = true;
    m_ex.station = b.station;
    m_ex.area = b.area;
    m_ex.start = b.start;
    m_ex.count = b.count;
    m_ex.block = index;
    m_ex.plan = m_plan;
    m_ex.pdu = readRequest(b.area, b.start, b.count);
}

void Master::startWrite()
{
    const WriteOp &op = m_writes.front();
    m_ex = Exchange();
    m_ex.active = true;
    m_ex.station = op.station;
    m_ex.area = op.target.area;
    m_ex.start = op.target.address;
    m_ex.count = static_cast<int>(op.cells.size());
    bool fetch = op.target.bitOfWord() && !m_settings.maskWrite && !op.fetched;
    m_ex.step = fetch ? Step::Fetch : Step::Write;
    m_ex.pdu = writePdu(op);
}

// A bit of a holding register is written either as FC 22 (atomic in the
// device) or, by default, by reading the word fresh and writing it back with
// FC 6: every device that has writable registers knows FC 3 and FC 6.
Pdu Master::writePdu(const WriteOp &op) const
{
    const Target &t = op.target;
    bool multiple = m_settings.multipleWrites(op.station);
    if (!t.bitOfWord())
        return writeRequest(t.area, t.address, op.cells.data(), static_cast<int>(op.cells.size()), multiple);
    uint16_t mask = static_cast<uint16_t>(1u << t.bit);
    if (m_settings.maskWrite)
        return maskWriteRequest(t.address, static_cast<uint16_t>(~mask), op.cells[0] ? mask : 0);
    if (!op.fetched)
        return readRequest(Area::HoldingRegisters, t.address, 1);
    return writeRequest(Area::HoldingRegisters, t.address, op.cells.data(), 1, multiple);
}

}  // namespace lumbra::modbus
