#include "mqttcache.h"

#include "SQLiteDB/SQLiteDB.h"
#include "generalFunc/globals.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "MqttCliManager/MqttClient.cpp"

namespace lumbra::forward {

namespace {

const char kTable[] = "mqttForward";

}  // namespace

QString ForwardCache::fileFor(const QString &dir, int configId)
{
    return QString("%1/server%2Mqtt.db").arg(dir).arg(configId);
}

ForwardCache::ForwardCache(const QString &path, unsigned limit) : m_limit(qMax(1u, limit))
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    m_db = std::make_unique<SQLiteDB>(path.toLocal8Bit().constData());
    if (!m_db->isOpen() ||
        !m_db->executeSQL(
            QString("CREATE TABLE IF NOT EXISTS %1 (topic TEXT, data TEXT, datetime TEXT);").arg(kTable).toStdString())) {
        m_db.reset();
        return;
    }
    recount();
}

ForwardCache::~ForwardCache() = default;

void ForwardCache::recount()
{
    m_rows = m_db ? m_db->dataNum(kTable) : 0;
}

bool ForwardCache::append(const QList<Row> &rows)
{
    if (!m_db || rows.isEmpty())
        return false;
    trim(rows.size());
    return insert(rows, nullptr);
}

bool ForwardCache::prepend(const QList<Row> &rows)
{
    if (!m_db || rows.isEmpty())
        return false;
    trim(rows.size());
    QStringList cells;
    if (m_rows == 0 || !m_db->select(QString("SELECT min(rowid) FROM %1").arg(kTable).toStdString(), cells) ||
        cells.isEmpty())
        return insert(rows, nullptr);
    const qint64 first = cells.first().toLongLong() - rows.size();
    return insert(rows, &first);
}

// Without firstRowid SQLite numbers the rows after the last.
bool ForwardCache::insert(const QList<Row> &rows, const qint64 *firstRowid)
{
    QString sql = firstRowid ? QString("INSERT INTO %1 (rowid, topic, data, datetime) VALUES ").arg(kTable)
                             : QString("INSERT INTO %1 VALUES ").arg(kTable);
    for (int i = 0; i < rows.size(); ++i) {
        const Row &r = rows.at(i);
        sql += QString("%1(%2'%3','%4','%5')")
                   .arg(i ? "," : "", firstRowid ? QString::number(*firstRowid + i) + "," : QString(), sqlQuote(r.topic),
                        sqlQuote(QString::fromUtf8(r.payload)), sqlQuote(r.time));
    }
    if (!m_db->insert(sql.toStdString()))
        return false;
    m_rows += rows.size();
    return true;
}

// The oldest tenth at a time: one delete per tenth rather than per message.
void ForwardCache::trim(int incoming)
{
    if (m_rows + incoming <= m_limit)
        return;
    const int count = qMax(int(m_rows + incoming - m_limit), int(qMax(1u, m_limit / 10)));
    removeOldest(count);
    zlog_info(g_zlog, "del db count:%d m_dbDataNum:%d", count, static_cast<int>(m_rows));
}

QList<ForwardCache::Row> ForwardCache::after(qint64 rowid, int limit)
{
    QList<Row> out;
    QStringList cells;
    if (!m_db || limit <= 0 ||
        !m_db->select(QString("SELECT rowid, topic, data, datetime FROM %1 WHERE rowid > %2 ORDER BY rowid LIMIT %3")
                          .arg(kTable)
                          .arg(rowid)
                          .arg(limit)
                          .toStdString(),
                      cells))
        return out;
    for (int i = 0; i + 3 < cells.size(); i += 4)
        out.append(Row{cells.at(i).toLongLong(), cells.at(i + 1), cells.at(i + 2).toUtf8(), cells.at(i + 3)});
    return out;
}

bool ForwardCache::remove(const QList<qint64> &rowids)
{
    if (!m_db || rowids.isEmpty())
        return false;
    QString sql = QString("DELETE FROM %1 WHERE rowid IN (").arg(kTable);
    for (int i = 0; i < rowids.size(); ++i)
        sql += (i ? "," : "") + QString::number(rowids.at(i));
    const bool ok = m_db->del((sql + ")").toStdString());
    m_removedSinceCompact = m_removedSinceCompact || ok;
    recount();
    return ok;
}

bool ForwardCache::removeOldest(int n)
{
    if (!m_db)
        return false;
    const bool ok = m_db->del(
        QString("DELETE FROM %1 WHERE rowid IN (SELECT rowid FROM %1 ORDER BY rowid LIMIT %2)").arg(kTable).arg(n).toStdString());
    m_removedSinceCompact = m_removedSinceCompact || ok;
    recount();
    return ok;
}

bool ForwardCache::removeOldestAndCompact(int n)
{
    const bool ok = removeOldest(n);
    if (ok)
        m_db->VACUUM();
    m_removedSinceCompact = false;
    return ok;
}

void ForwardCache::compactIfEmptied()
{
    if (!m_db || m_rows > 0 || !m_removedSinceCompact)
        return;
    m_db->VACUUM();
    m_removedSinceCompact = false;
}

}  // namespace lumbra::forward
