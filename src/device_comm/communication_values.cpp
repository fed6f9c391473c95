// Reading and writing values: local registers directly, device values
// through the link's driver.
#include "communication.h"

#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "src/ulinkthread.h"

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "device_comm/communication.cpp"

namespace {

// Addresses whose failed writes are remembered for rate limiting; past this
// the memory starts again rather than grow without end.
const int kMaxWriteWarnings = 1024;

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

// Cells of a local area that fit into dataSize bytes: a length configured
// beyond the caller's buffer must not run past it.
int localCells(int area, int len, int dataSize)
{
    if (dataSize < 0)
        return len;
    return qMin(len, area == LocalRegisters::LB ? dataSize : dataSize / 2);
}

QString writeKey(const QString &link, const QString &reg, int addr, int station)
{
    return QString("%1\x1f%2\x1f%3\x1f%4").arg(link, reg).arg(addr).arg(station);
}

}  // namespace

int communication::getCommValue(const QString &link, const QString &reg, int addr, int station, int len,
                                uchar *data, int dataSize, int kind, int *quality, int waitMs)
{
    int q = LUMBRA_QUALITY_NOT_READ;
    int rc = -1;
    bool shielded = false;
    const int local = getLocalIndex(reg);
    if (local >= 0) {
        rc = m_local.get(local, addr, localCells(local, len, dataSize), data);
        q = LUMBRA_QUALITY_GOOD;
    } else if (LinkThreadPtr t = valueTarget(link, &station, &shielded); t && data && len > 0) {
        const int size = dataSize >= 0 ? dataSize : 2 * len;
        rc = waitMs > 0 && !shielded
                 ? t->AwaitValue(station, reg, addr, len, kind, data, size, &q, qMin(waitMs, t->replyTimeout()))
                 : t->GetValue(station, reg, addr, len, kind, data, size, &q);
        // Not polled: whatever the driver still holds of it is not current.
        if (shielded)
            q = LUMBRA_QUALITY_NO_REPLY;
    }
    if (rc < 0)
        q = LUMBRA_QUALITY_NOT_READ;
    if (quality)
        *quality = q;
    if (rc < 0)
        return -1;
    return rc == 1 && q == LUMBRA_QUALITY_GOOD ? 1 : 0;
}

void communication::getCommValues(const QString &link, ValueRead *reads, int count)
{
    int defaultStation = 0;
    int linkId = -1;
    QList<int> shielded;
    LinkThreadPtr thread;
    {
        QReadLocker lock(&m_lock);
        for (const LinkThreadPtr &t : m_threads) {
            if (t->linkName() == link) {
                thread = t;
                break;
            }
        }
        shielded = m_shielded;
    }
    if (thread) {
        defaultStation = thread->defaultStation();
        linkId = thread->getLinkID();
    }
    std::vector<CLinkDriver::ValueRead> device;
    device.reserve(static_cast<size_t>(count));
    std::vector<int> at;  // which read each device read is
    for (int i = 0; i < count; ++i) {
        ValueRead &r = reads[i];
        r.rc = -1;
        const int local = getLocalIndex(*r.reg);
        if (local >= 0) {
            r.rc = m_local.get(local, r.addr, localCells(local, r.len, r.dataSize), r.data) < 0 ? -1 : 1;
            continue;
        }
        if (!thread || !r.data || r.len <= 0)
            continue;
        const int station = r.station < 0 ? defaultStation : r.station;
        device.push_back({r.reg, r.addr, station, r.len, r.kind, r.data, r.dataSize, -1, LUMBRA_QUALITY_NOT_READ});
        at.push_back(i);
    }
    if (thread && !device.empty())
        thread->GetValues(device.data(), static_cast<int>(device.size()));
    for (size_t k = 0; k < device.size(); ++k) {
        const CLinkDriver::ValueRead &d = device[k];
        // Not polled: whatever the driver still holds of it is not current.
        const bool current = shielded.isEmpty() || !shielded.contains(shieldKey(linkId, d.station));
        reads[at[k]].rc = d.rc < 0 ? -1 : (d.rc == 1 && d.quality == LUMBRA_QUALITY_GOOD && current ? 1 : 0);
    }
}

int communication::setCommValue(const QString &link, const QString &reg, int addr, int station, int len,
                                const uchar *data, int dataSize, int kind, QString *why)
{
    const int local = getLocalIndex(reg);
    if (local >= 0)
        return m_local.set(local, addr, localCells(local, len, dataSize), data);
    QString reason;
    bool shielded = false;
    LinkThreadPtr t = valueTarget(link, &station, &shielded);
    int rc = -1;
    if (!t) {
        reason = QStringLiteral("no such link");
    } else if (!data || len <= 0) {
        reason = QStringLiteral("nothing to write");
    } else if (shielded) {
        zlog_debug(g_zlog, "link:%s station %d shielded, write dropped", local8(link).constData(), station);
        reason = QStringLiteral("station shielded");
    } else {
        rc = t->WriteValue(station, reg, addr, len, kind, data, dataSize >= 0 ? dataSize : 2 * len,
                           t->replyTimeout(), &reason);
    }
    if (rc == 1)
        writeSucceeded(link, reg, addr, station);
    else if (!shielded)
        warnWriteFailed(link, reg, addr, station, reason);
    if (why)
        *why = rc == 1 ? QString() : reason;
    return rc == 1 ? 1 : -1;
}

// A script that writes a dead device in a loop must not fill the log: one
// line per address, then one a minute with the number held back.
void communication::warnWriteFailed(const QString &link, const QString &reg, int addr, int station,
                                    const QString &why)
{
    int held = 0;
    {
        QMutexLocker lock(&m_warnLock);
        if (m_writeWarnings.size() >= kMaxWriteWarnings)
            m_writeWarnings.clear();
        if (!m_writeWarnings[writeKey(link, reg, addr, station)].allow(&held))
            return;
    }
    zlog_warn(g_zlog, "link:%s write of %s %d station %d failed: %s (%d more since the last line)",
              local8(link).constData(), local8(reg).constData(), addr, station, local8(why).constData(), held);
}

void communication::writeSucceeded(const QString &link, const QString &reg, int addr, int station)
{
    QMutexLocker lock(&m_warnLock);
    if (!m_writeWarnings.isEmpty())
        m_writeWarnings.remove(writeKey(link, reg, addr, station));
}

int communication::kindOf(int valueType)
{
    switch (valueType) {
    case VALUE_BIT: return LUMBRA_KIND_BIT;
    case VALUE_U16:
    case VALUE_S16:
    case VALUE_BCD16: return LUMBRA_KIND_16BIT;
    case VALUE_U32:
    case VALUE_S32:
    case VALUE_BCD32:
    case VALUE_FLOAT: return LUMBRA_KIND_32BIT;
    case VALUE_STRING: return LUMBRA_KIND_STRING;
    default: return LUMBRA_KIND_RAW;
    }
}
