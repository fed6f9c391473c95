#include "hisdelivery.h"

#include "hisdata_p.h"

#include "Outbox/Outbox.h"
#include "SQLiteDB/SQLiteDB.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/globals.h"

#include <climits>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "HistoricalData/HistoricalData.cpp"

namespace {

const char kTable[] = "historydata";
const int kRowCells = 3;  // rowid, data, datetime

QString idList(const QVector<qint64> &rowids)
{
    QStringList ids;
    ids.reserve(rowids.size());
    for (qint64 id : rowids)
        ids << QString::number(id);
    return ids.join(',');
}

}  // namespace

HisDelivery::HisDelivery()
{
    m_clock.start();
}

bool HisDelivery::due(const Batch &b) const
{
    return m_clock.elapsed() - b.lastPostMs >= kResendMs || b.upCount != Outbox::getInstance()->upCount();
}

bool HisDelivery::settling(unsigned groupId)
{
    auto it = m_settles.find(groupId);
    if (it == m_settles.end())
        return false;
    if (m_clock.elapsed() < it->untilMs)
        return true;
    m_settles.erase(it);
    return false;
}

bool HisDelivery::passDue()
{
    bool due = false;
    // A wait that ended is over whether or not the group has rows left.
    for (auto it = m_settles.begin(); it != m_settles.end();) {
        if (m_clock.elapsed() < it->untilMs) {
            ++it;
            continue;
        }
        it = m_settles.erase(it);
        due = true;
    }
    // A batch whose rows were all pruned has nothing to send again; it stays
    // only to take its acknowledgement.
    for (const Batch &b : qAsConst(m_batches))
        due = due || (!b.rowids.isEmpty() && this->due(b));
    return due;
}

// A step from group to group along the index, so that a pass costs a few
// lookups per group however many rows wait.
bool HisDelivery::nextGroup(qint64 after, qint64 *groupId)
{
    QStringList cells;
    if (!m_db ||
        !m_db->select(QString("select sampleID from %1 where sampleID > %2 order by sampleID limit 1")
                          .arg(kTable)
                          .arg(after)
                          .toStdString(),
                      cells) ||
        cells.isEmpty())
        return false;
    *groupId = cells.first().toLongLong();
    return true;
}

bool HisDelivery::sendPass(const QMap<unsigned, QStringList> &labels, bool zip)
{
    qint64 group = LLONG_MIN;
    while (nextGroup(group, &group)) {
        const unsigned id = static_cast<unsigned>(group);
        if (settling(id))
            continue;
        auto it = m_batches.constFind(id);
        if (it != m_batches.cend() && !due(*it))
            continue;
        if (!sendGroup(id, labels.value(id), zip))
            return false;
    }
    return true;
}

// A batch in flight goes again with exactly its rows (those not pruned
// since): the acknowledgement names only the group, so every copy the
// platform may answer must stand for the same rows.
bool HisDelivery::selectRows(unsigned groupId, const Batch *inFlight, QStringList *cells)
{
    if (!m_db)
        return false;
    const QString sql =
        inFlight ? QString("select rowid,data,datetime from %1 where rowid in (%2) order by rowid")
                       .arg(kTable, idList(inFlight->rowids))
                 : QString("select rowid,data,datetime from %1 where sampleID=%2 order by rowid limit %3")
                       .arg(kTable)
                       .arg(groupId)
                       .arg(kBatchRows);
    return m_db->select(sql.toStdString(), *cells);
}

bool HisDelivery::sendGroup(unsigned groupId, const QStringList &labels, bool zip)
{
    auto it = m_batches.find(groupId);
    QStringList cells;
    if (it != m_batches.end() && (!selectRows(groupId, &*it, &cells) || cells.isEmpty())) {
        // Every row of it was pruned: the group starts afresh.
        m_batches.erase(it);
        it = m_batches.end();
    }
    if (it == m_batches.end() && !selectRows(groupId, nullptr, &cells))
        return true;
    QVector<qint64> rowids;
    QList<HistoricalData::sendDataTime_t> rows;
    for (int i = 0; i + kRowCells <= cells.size(); i += kRowCells) {
        rowids << cells.at(i).toLongLong();
        rows.append({cells.at(i + 1), cells.at(i + 2), rowids.last()});
    }
    if (rows.isEmpty())
        return true;
    zlog_info(g_zlog, "send group id:%d data size:%d", static_cast<int>(groupId), rows.size());
    const QByteArray text = lumbra::his::batchMessage(deviceInfo::getInstance()->sn(), groupId, labels, rows);
    if (text.isEmpty()) {
        zlog_error(g_zlog, "json serializer err %s", "empty document");
        return true;
    }
    Outbox *outbox = Outbox::getInstance();
    const quint64 ups = outbox->upCount();
    const char *topic = zip ? "/DevSend/Sequential/HisDataCompress" : "/DevSend/Sequential/HisData";
    if (!outbox->post(topic, QString::fromUtf8(text), zip, 0, Outbox::Stored))
        return false;
    Batch &b = m_batches[groupId];
    ++b.posts;
    b.rowids = rowids;
    b.lastPostMs = m_clock.elapsed();
    b.upCount = ups;
    return true;
}

int HisDelivery::ack(unsigned groupId)
{
    auto it = m_batches.find(groupId);
    if (it == m_batches.end()) {
        auto settle = m_settles.find(groupId);
        const bool copy = settle != m_settles.end();
        if (copy && --settle->acksLeft <= 0)
            m_settles.erase(settle);
        int held;
        if (m_unmatchedLog.allow(&held))
            zlog_info(g_zlog, "recv history ack group:%u %s, nothing deleted (%d more since the last line)", groupId,
                      copy ? "for another copy of its last batch" : "with no batch in flight", held);
        return -1;
    }
    // Rows pruned since the batch went are no longer in it.
    const int n = it->rowids.size();
    const bool ok = n == 0 || (m_db && m_db->del(QString("delete from %1 where rowid in (%2)")
                                                     .arg(kTable, idList(it->rowids))
                                                     .toStdString()));
    zlog_info(g_zlog, "recv del data num:%d result:%d", n, ok ? 1 : 0);
    // A failed delete keeps the batch: it goes again and is acknowledged
    // again.
    if (!ok)
        return 0;
    // Every copy sent may be answered. Until the answers to the others are
    // in (they come close behind), the group's next batch waits, so that
    // they cannot be taken for its acknowledgement.
    if (it->posts > 1)
        m_settles[groupId] = {m_clock.elapsed() + kSettleMs, it->posts - 1};
    m_batches.erase(it);
    return n;
}

void HisDelivery::forgetUpTo(qint64 lastRowid)
{
    for (Batch &b : m_batches) {
        QVector<qint64> kept;
        for (qint64 id : qAsConst(b.rowids))
            if (id > lastRowid)
                kept << id;
        b.rowids = kept;
    }
}

void HisDelivery::drop(unsigned groupId)
{
    m_batches.remove(groupId);
    m_settles.remove(groupId);
}
