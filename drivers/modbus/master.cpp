#include "master.h"

#include "adu.h"
#include "codec.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <tuple>

namespace lumbra::modbus {

namespace {

// A dead station must not let writes pile up without bound.
constexpr size_t kMaxQueuedWrites = 256;
constexpr int kMaxRetries = 100;

// Nobody answers an RTU broadcast, so station 0 is polled and written only
// where it is a real unit id (TCP).
bool pollableStation(int station)
{
    return station >= (kTcpFraming ? 0 : 1) && station < kStationCount;
}

void writeText(char *text, int size, const char *value)
{
    if (text && size > 0)
        std::snprintf(text, static_cast<size_t>(size), "%s", value);
}

bool fitsOneWrite(const Target &t, int cells)
{
    return t.bitOfWord() || cells <= (isBitArea(t.area) ? kMaxWriteCoils : kMaxWriteRegisters);
}

}  // namespace

int Master::initProperty(const unsigned char *info, const int *size)
{
    if (!info || !size || *size < static_cast<int>(sizeof(LUMBRA_LINK_INFO)))
        return -1;
    LUMBRA_LINK_INFO link;
    std::memcpy(&link, info, sizeof link);
    if (link.abi_version < LUMBRA_DRIVER_ABI_VERSION)
        return -1;
    m_link = link;
    m_retries = std::clamp(static_cast<int>(link.retry_times), 0, kMaxRetries);
    return 0;
}

int Master::setProperty(const char *text)
{
    Settings parsed;
    bool ok = parseSettings(text, &parsed);
    m_settings = ok ? parsed : Settings();
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
    m_entries = pollEntries(list, count, m_link.plc_id, kTcpFraming);
    for (Entry &e : m_entries) {
        auto it = seen.find({e.station, e.target.area, e.index(), e.count});
        if (it != seen.end())
            e.image = std::move(it->second);
    }
    replan();
    return m_poller.size();
}

void Master::replan()
{
    m_poller.replace(mergeBlocks(m_entries, m_settings));
}

int Master::checkAddress(const char *reg, const char *addr, int *index, int st) const
{
    Area area;
    Target t;
    if (!index || station(st) >= kStationCount || !parseArea(reg, &area))
        return -1;
    switch (parseAddress(area, addr, &t)) {
    case AddressCheck::Ok: *index = encodeIndex(t); return LUMBRA_ADDR_OK;
    case AddressCheck::RetryPlain: return LUMBRA_ADDR_RETRY_PLAIN;
    case AddressCheck::Invalid: break;
    }
    return -1;
}

bool Master::resolve(int st, const char *reg, int index, int count, const void *data, int len, Value *out) const
{
    Area area;
    Value v;
    v.station = station(st);
    if (!data || !pollableStation(v.station) || !parseArea(reg, &area) || !decodeIndex(area, index, &v.target))
        return false;
    if (!valueShape(v.target, count, &v.shape) || len < v.shape.bytes)
        return false;
    *out = v;
    return true;
}

int Master::getData(int st, const char *reg, int index, int count, uint8_t *data, int len) const
{
    Value v;
    if (!resolve(st, reg, index, count, data, len, &v))
        return -1;
    std::vector<uint16_t> cells(static_cast<size_t>(v.shape.cells));
    if (!m_cache.load(v.station, v.target.area, v.target.address, v.shape.cells, cells.data())) {
        std::memset(data, 0, static_cast<size_t>(v.shape.bytes));
        return 0;
    }
    cellsToBytes(v.target, cells.data(), count, m_settings, data);
    return 1;
}

int Master::setData(int st, const char *reg, int index, int count, const uint8_t *data, int len)
{
    Value v;
    if (!resolve(st, reg, index, count, data, len, &v) || !isWritable(v.target.area))
        return -1;
    if (!fitsOneWrite(v.target, v.shape.cells) || m_writes.size() >= kMaxQueuedWrites)
        return -1;
    WriteOp op;
    op.station = v.station;
    op.target = v.target;
    op.cells.resize(static_cast<size_t>(v.shape.cells));
    bytesToCells(v.target, data, count, m_settings, op.cells.data());
    m_writes.push_back(std::move(op));
    return 1;
}

int Master::nextFrame(FRAME_PRO *frame)
{
    if (!frame)
        return 0;
    frame->len = 0;
    if (m_disconnected.exchange(false)) {
        m_ex.awaiting = false;
        m_transaction = 0;
    }
    // An exchange still active is sent again: it is being retried, or its
    // frame never got an answer handed back.
    if (!m_ex.active && !startNext())
        return 0;
    int len = wrapRequest(m_ex.station, m_ex.pdu, ++m_transaction, frame->data, LUMBRA_FRAME_SIZE);
    if (len <= 0)
        return 0;
    frame->len = len;
    m_ex.awaiting = true;
    return 1;
}

bool Master::startNext()
{
    if (!m_writes.empty()) {
        startWrite();
        return true;
    }
    const Block *b = m_poller.next();
    if (!b)
        return false;
    m_ex = Exchange();
    m_ex.active = true;
    m_ex.station = b->station;
    m_ex.area = b->area;
    m_ex.start = b->start;
    m_ex.count = b->count;
    m_ex.pdu = readRequest(b->area, b->start, b->count);
    return true;
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
Bytes Master::writePdu(const WriteOp &op) const
{
    const Target &t = op.target;
    if (!t.bitOfWord())
        return writeRequest(t.area, t.address, op.cells.data(), static_cast<int>(op.cells.size()));
    uint16_t mask = static_cast<uint16_t>(1u << t.bit);
    if (m_settings.maskWrite)
        return maskWriteRequest(t.address, static_cast<uint16_t>(~mask), op.cells[0] ? mask : 0);
    if (!op.fetched)
        return readRequest(Area::HoldingRegisters, t.address, 1);
    return writeRequest(Area::HoldingRegisters, t.address, op.cells.data(), 1);
}

int Master::onReply(const uint8_t *data, int len, char *text, int textSize)
{
    if (!m_ex.awaiting) {
        writeText(text, textSize, "");
        return LUMBRA_RESULT_INCOMPLETE;
    }
    m_ex.awaiting = false;
    if (text && textSize > 0)
        std::snprintf(text, static_cast<size_t>(textSize), "%d", m_ex.station);
    const uint8_t *pdu = nullptr;
    int pduLen = 0;
    if (len <= 0 || !unwrapReply(data, len, m_ex.station, m_transaction, &pdu, &pduLen))
        return fail();
    switch (checkReply(m_ex.pdu, pdu, pduLen)) {
    case Reply::Bad:
        return fail();
    case Reply::Exception:
        // The device is alive and said no; asking again will not change its
        // mind. Read values keep their last state, the write is dropped.
        finish();
        return LUMBRA_RESULT_GOOD;
    case Reply::Good:
        takeReply(pdu);
        return LUMBRA_RESULT_GOOD;
    }
    return fail();
}

int Master::fail()
{
    if (++m_ex.failures <= m_retries)
        return LUMBRA_RESULT_INCOMPLETE;
    m_poller.markDown(m_ex.station);
    finish();
    return LUMBRA_RESULT_STATION_FAILED;
}

void Master::finish()
{
    if (m_ex.step != Step::Read && !m_writes.empty())
        m_writes.pop_front();
    m_ex = Exchange();
}

void Master::takeReply(const uint8_t *pdu)
{
    if (m_ex.step == Step::Write) {
        applyWrite(m_writes.front());
        finish();
        return;
    }
    std::vector<uint16_t> cells(static_cast<size_t>(m_ex.count));
    replyCells(m_ex.pdu, pdu, cells.data());
    m_cache.store(m_ex.station, m_ex.area, m_ex.start, m_ex.count, cells.data());
    notify(m_ex.station, m_ex.area, m_ex.start, m_ex.count);
    if (m_ex.step == Step::Read) {
        m_ex = Exchange();
        return;
    }
    WriteOp &op = m_writes.front();
    uint16_t mask = static_cast<uint16_t>(1u << op.target.bit);
    op.cells[0] = static_cast<uint16_t>(op.cells[0] ? (cells[0] | mask) : (cells[0] & ~mask));
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
    notify(op.station, t.area, t.address, static_cast<int>(op.cells.size()));
}

void Master::notify(int st, Area area, int start, int count)
{
    struct Change {
        std::string reg;
        int index;
    };
    std::vector<Change> changes;
    for (Entry &e : m_entries) {
        if (e.station != st || e.target.area != area)
            continue;
        if (e.firstCell() + e.cellCount() <= start || e.firstCell() >= start + count)
            continue;
        std::vector<uint16_t> image(static_cast<size_t>(e.cellCount()));
        if (!m_cache.load(st, area, e.firstCell(), e.cellCount(), image.data()))
            continue;
        if (e.target.bitOfWord())
            image[0] = (image[0] >> e.target.bit) & 1;
        if (image == e.image)
            continue;
        e.image = std::move(image);
        changes.push_back({e.reg, e.index()});
    }
    // Called after the walk, so a callback that re-enters cannot pull the
    // entry list from under it.
    for (const Change &c : changes)
        if (m_callback)
            m_callback(m_link.link_id, st, c.reg.c_str(), c.index);
}

}  // namespace lumbra::modbus
