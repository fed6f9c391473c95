// Delivery of the stored rows: one batch in flight per group, named by the
// rowids it carried, so that an acknowledgement deletes exactly the rows the
// platform has, whatever was pruned or added meanwhile, and a group that is
// never acknowledged holds back no other.
#include "HistoricalData.h"
#include "hisdata_p.h"

#include "Outbox/Outbox.h"
#include "SQLiteDB/SQLiteDB.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/globals.h"

#include <QDateTime>

#include <algorithm>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "HistoricalData/HistoricalData.cpp"

namespace {

const char kTable[] = "historydata";
// A batch without an acknowledgement goes again at a send pass this long
// after it went (and at once when the cloud comes back).
const qint64 kResendMs = 10000;

QString idList(const QList<qint64> &ids)
{
    QStringList texts;
    texts.reserve(ids.size());
    for (qint64 id : ids)
        texts << QString::number(id);
    return texts.join(',');
}

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

}  // namespace

// The oldest rows go when the table is full. A batch in flight forgets the
// rows pruned under it: once the table has emptied, SQLite hands their
// rowids out again, and a late acknowledgement must not find new rows there.
bool HistoricalData::delHisData(const int &n)
{
    if (!m_db)
        return false;
    QStringList last;
    m_db->select(QString("select max(rowid) from (select rowid from %1 order by rowid limit %2)")
                     .arg(kTable)
                     .arg(n)
                     .toStdString(),
                 last);
    const qint64 upTo = last.value(0).toLongLong();
    const bool ok = m_db->del(QString("delete from %1 where rowid<=%2").arg(kTable).arg(upTo).toStdString());
    zlog_info(g_zlog, "del data num:%d result:%d", n, ok ? 1 : 0);
    if (ok) {
        for (Batch &b : m_inFlight)
            b.rowids.erase(std::remove_if(b.rowids.begin(), b.rowids.end(), [upTo](qint64 id) { return id <= upTo; }),
                           b.rowids.end());
    }
    return ok;
}

// Called with m_mutex held. A batch whose acknowledgement does not come (it
// was lost on the way, or the platform was not listening yet) needs a pass
// of its own: the next sample may be minutes away.
bool HistoricalData::resendDue() const
{
    const qint64 now = nowMs();
    for (const Batch &b : m_inFlight)
        if (now - b.sentAtMs >= kResendMs)
            return true;
    return false;
}

QList<unsigned> HistoricalData::groupsWithRows()
{
    QStringList cells;
    QList<unsigned> ids;
    if (m_db && m_db->select(QString("select distinct sampleID from %1 order by sampleID").arg(kTable).toStdString(),
                             cells))
        for (const QString &c : cells)
            ids << c.toUInt();
    return ids;
}

QByteArray HistoricalData::batchText(unsigned groupId, bool resend)
{
    auto it = m_inFlight.find(groupId);
    QString sql;
    if (it != m_inFlight.end()) {
        if (!resend && nowMs() - it->sentAtMs < kResendMs)
            return QByteArray();
        sql = QString("select rowid,data,datetime from %1 where rowid in (%2) order by rowid")
                  .arg(kTable, idList(it->rowids));
    } else {
        sql = QString("select rowid,data,datetime from %1 where sampleID=%2 order by rowid limit %3")
                  .arg(kTable)
                  .arg(groupId)
                  .arg(lumbra::his::kBatchRows);
    }
    QStringList cells;
    if (!m_db || !m_db->select(sql.toStdString(), cells) || cells.size() < 3) {
        m_inFlight.remove(groupId);  // nothing left of it
        return QByteArray();
    }
    Batch batch;
    QList<sendDataTime_t> rows;
    for (int i = 0; i + 2 < cells.size(); i += 3) {
        batch.rowids << cells.at(i).toLongLong();
        rows.append(sendDataTime_t{cells.at(i + 1), cells.at(i + 2)});
    }
    const QByteArray text =
        lumbra::his::batchMessage(deviceInfo::getInstance()->sn(), groupId, m_formats.value(groupId), rows);
    if (text.isEmpty()) {
        zlog_error(g_zlog, "json serializer err %s", "empty document");
        return text;
    }
    zlog_info(g_zlog, "send group id:%d data size:%d", static_cast<int>(groupId), rows.size());
    batch.sentAtMs = nowMs();
    m_inFlight.insert(groupId, batch);
    return text;
}

void HistoricalData::postBatch(const QByteArray &text)
{
    const bool zip = m_compress;
    const char *topic = zip ? "/DevSend/Sequential/HisDataCompress" : "/DevSend/Sequential/HisData";
    // Refused only when the cloud just went down: the batch stays in flight
    // and goes again when it is back.
    Outbox::getInstance()->post(topic, QString::fromUtf8(text), zip, 0, Outbox::Stored);
}

// A send pass: every group with rows sends its next batch, or its batch in
// flight again when that has waited long enough.
void HistoricalData::sendData()
{
    QList<QByteArray> texts;
    {
        QMutexLocker lock(&m_mutex);
        const bool resend = m_cloudBack;
        m_cloudBack = false;
        for (unsigned groupId : groupsWithRows()) {
            const QByteArray text = batchText(groupId, resend);
            if (!text.isEmpty())
                texts << text;
        }
    }
    for (const QByteArray &text : texts)
        postBatch(text);
}

void HistoricalData::AckdelHisData(unsigned int groupId)
{
    QByteArray next;
    {
        QMutexLocker lock(&m_mutex);
        // Taken, not read: a second acknowledgement of the same batch, or one
        // for a batch from before a restart, finds nothing to delete.
        if (!m_inFlight.contains(groupId)) {
            zlog_info(g_zlog, "recv history ack for group %u with no batch in flight, ignored", groupId);
            return;
        }
        const Batch batch = m_inFlight.take(groupId);
        bool ok = batch.rowids.isEmpty();
        if (m_db && !ok)
            ok = m_db->del(
                QString("delete from %1 where rowid in (%2)").arg(kTable, idList(batch.rowids)).toStdString());
        if (ok)
            m_rowCount -= qMin(m_rowCount, static_cast<unsigned>(batch.rowids.size()));
        zlog_info(g_zlog, "recv del data num:%d result:%d", static_cast<int>(batch.rowids.size()), ok ? 1 : 0);
        // The group's next batch goes at once: a backlog drains at the pace
        // of the platform's answers.
        if (ok && Outbox::getInstance()->cloudUp())
            next = batchText(groupId, false);
    }
    if (!next.isEmpty())
        postBatch(next);
}
