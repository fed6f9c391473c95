// The offline cache of one forwarding server: an SQLite file of the messages
// its broker has not taken yet, oldest first. Rows leave it only once the
// broker has acknowledged them, a whole batch per statement; the file is
// compacted once, when it has become empty.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>

class SQLiteDB;

namespace lumbra::forward {

class ForwardCache {
public:
    struct Row {
        qint64 rowid = 0;
        QString topic;
        QByteArray payload;
        QString time;
    };

    // "<dir>/server<id>Mqtt.db": the server's id, never its client id, which
    // two servers may share.
    static QString fileFor(const QString &dir, int configId);

    // At most limit rows: a full cache loses its oldest tenth.
    ForwardCache(const QString &path, unsigned limit);
    ~ForwardCache();
    ForwardCache(const ForwardCache &) = delete;
    ForwardCache &operator=(const ForwardCache &) = delete;

    bool isOpen() const { return m_db != nullptr; }
    unsigned rows() const { return m_rows; }

    // In one statement, in order, after the rows there are; false when the
    // file refused them.
    bool append(const QList<Row> &rows);
    // The same before the rows there are: messages older than all of them.
    bool prepend(const QList<Row> &rows);
    // Up to limit rows after rowid, oldest first. Rowids may be negative.
    QList<Row> after(qint64 rowid, int limit);
    bool remove(const QList<qint64> &rowids);
    // The oldest n rows, then a compaction.
    bool removeOldestAndCompact(int n);
    // VACUUM, at most once per emptying: the freed pages of a cache that is
    // still in use are taken again by the next rows.
    void compactIfEmptied();

private:
    bool insert(const QList<Row> &rows, const qint64 *firstRowid);
    void trim(int incoming);
    bool removeOldest(int n);
    void recount();

    std::unique_ptr<SQLiteDB> m_db;
    unsigned m_limit;
    unsigned m_rows = 0;
    bool m_removedSinceCompact = false;
};

}  // namespace lumbra::forward
