#include "alarmdelivery.h"

#include "AlarmData.h"
#include "Outbox/Outbox.h"
#include "SQLiteDB/SQLiteDB.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/globals.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "AlarmData/AlarmData.cpp"

namespace {

const char kTable[] = "alarmdata";
const char kOldestRow[] = "select rowid,* from alarmdata order by rowid limit 1";
const int kRowCells = 6;  // rowid, alarm_id, level, type, value, time

// row: rowid and the cells of one stored event.
QJsonObject eventMessage(const QStringList &row, unsigned reqId)
{
    const int level = row.at(2).toInt();
    QJsonObject o{{"alarm_index", row.at(1).toInt()},
                  {"alarm_level", level},
                  {"alarm_note", row.at(4)},
                  {"alarm_time", row.at(5)},
                  {"sn_code", deviceInfo::getInstance()->sn()},
                  {"reqId", QString::number(reqId)}};
    if (row.at(3).toInt() != AlarmData::EVENT_ALARM)
        return o;
    o.insert("alarm_type", 1);
    for (int n = 1; n <= 4; ++n)
        o.insert(QString("alarm_level%1").arg(n), level == n ? 1 : 0);
    // The platform reads level 5 from "alarm_level" alone; this field stays 0.
    o.insert("alarm_level5", 0);
    o.insert("alarm_total", 1);
    return o;
}

}  // namespace

// Request ids start at a random number: an acknowledgement meant for the
// process before a restart must not name a message of this one.
AlarmDelivery::AlarmDelivery() : m_lastId(QRandomGenerator::global()->generate())
{
    m_clock.start();
}

// 0 is what an acknowledgement without a readable id comes out as.
unsigned AlarmDelivery::nextId()
{
    if (++m_lastId == 0)
        ++m_lastId;
    return m_lastId;
}

void AlarmDelivery::pump(bool compress)
{
    if (!Outbox::getInstance()->cloudUp())
        return;
    QMutexLocker lock(&m_mutex);
    if (!m_flight.active && (m_rows == 0 || !takeOldest(compress)))
        return;
    if (due())
        post();
}

bool AlarmDelivery::takeOldest(bool compress)
{
    QStringList row;
    if (!m_db || !m_db->select(kOldestRow, row))
        return false;
    if (row.size() < kRowCells) {
        int held;
        if (m_emptyLog.allow(&held))
            zlog_info(g_zlog, "sql:%s data isEmpty", kOldestRow);
        m_rows = 0;
        return false;
    }
    InFlight f;
    f.active = true;
    f.rowid = row.at(0).toLongLong();
    f.reqId = nextId();
    f.text = QString::fromUtf8(QJsonDocument(eventMessage(row, f.reqId)).toJson(QJsonDocument::Compact));
    if (row.at(3).toInt() != AlarmData::EVENT_ALARM) {
        f.topic = "/DevSend/AlarmRecover";
    } else {
        f.zip = compress;
        f.topic = compress ? "/DevSend/AlarmCompress" : "/DevSend/Alarm";
    }
    m_flight = f;
    return true;
}

// A message the cloud may have missed goes again: after its resend time, or
// when the cloud went down and came back since it was posted.
bool AlarmDelivery::due() const
{
    return !m_flight.posted || m_clock.elapsed() - m_flight.postedAtMs >= kResendMs ||
           m_flight.upCount != Outbox::getInstance()->upCount();
}

void AlarmDelivery::post()
{
    Outbox *outbox = Outbox::getInstance();
    const quint64 ups = outbox->upCount();
    if (!outbox->post(m_flight.topic, m_flight.text, m_flight.zip, 0, Outbox::Stored))
        return;
    m_flight.posted = true;
    m_flight.postedAtMs = m_clock.elapsed();
    m_flight.upCount = ups;
}

bool AlarmDelivery::ack(unsigned reqId, bool compress)
{
    QMutexLocker lock(&m_mutex);
    // Only the message in flight may take a row: an id from before a resend
    // of the same row would be harmless, but one from before a restart, or a
    // second acknowledgement of a row already gone, would take a row the
    // platform never saw.
    if (!m_flight.posted || reqId != m_flight.reqId) {
        int held;
        if (m_unmatchedLog.allow(&held))
            zlog_info(g_zlog, "recv msgAck req:%u not eq m_SendId:%u (%d more ignored since the last line)", reqId,
                      m_flight.posted ? m_flight.reqId : m_lastId, held);
        return false;
    }
    const bool ok = m_db && m_db->del(QString("delete from %1 where rowid=%2").arg(kTable).arg(m_flight.rowid)
                                          .toStdString());
    if (ok) {
        m_flight = InFlight();
        m_rows -= qMin(m_rows, 1u);
    }
    zlog_info(g_zlog, "recv del Alarm data reqId:%u result:%d m_dbDataNum:%u", reqId, ok ? 1 : 0, m_rows);
    // A failed delete keeps the row in flight: it goes again and is
    // acknowledged again.
    if (!ok)
        return false;
    lock.unlock();
    pump(compress);
    return true;
}

unsigned AlarmDelivery::added()
{
    QMutexLocker lock(&m_mutex);
    return ++m_rows;
}

// Under the lock: a row picked for sending between the count and the delete
// could otherwise be forgotten while it survives, or kept while it is gone.
bool AlarmDelivery::prune(int n)
{
    QMutexLocker lock(&m_mutex);
    const bool ok =
        m_db && m_db->del(QString("delete from %1 where rowid in (select rowid from %1 order by rowid limit %2)")
                              .arg(kTable)
                              .arg(n)
                              .toStdString());
    zlog_info(g_zlog, "del data num:%d result:%d", n, ok ? 1 : 0);
    if (!ok)
        return false;
    // The row in flight is the oldest, so it went too; its acknowledgement
    // must not take the next one.
    m_flight = InFlight();
    m_rows -= qMin(m_rows, static_cast<unsigned>(n));
    return true;
}

void AlarmDelivery::recount()
{
    QMutexLocker lock(&m_mutex);
    m_rows = m_db ? m_db->dataNum(kTable) : 0;
}

unsigned AlarmDelivery::rows() const
{
    QMutexLocker lock(&m_mutex);
    return m_rows;
}
