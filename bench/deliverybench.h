// What the delivery benchmarks share: a backlog of stored rows, as an outage
// leaves it, that a service drains once the cloud is up, through the outbox,
// to a platform that answers each message the moment it comes.
#pragma once

#include "Outbox/Outbox.h"
#include "SQLiteDB/SQLiteDB.h"
#include "outboxplatform.h"

#include <QElapsedTimer>
#include <QString>
#include <QThread>

namespace lumbra::bench {

// Appends rows rows to table, each `select` evaluated over x = 1..rows.
inline bool fillTable(const char *dbFile, const char *table, int rows, const QString &select)
{
    SQLiteDB db(dbFile);
    return db.executeSQL(QString("WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < %1) "
                                 "INSERT INTO %2 SELECT %3 FROM n")
                             .arg(rows)
                             .arg(table, select)
                             .toStdString());
}

// Milliseconds from the cloud coming up until the table is empty; -1 when
// it is not within timeoutMs.
inline qint64 drainMs(const char *dbFile, const char *table, const lumbra::test::OutboxPlatform::Answer &answer,
                      int timeoutMs)
{
    lumbra::test::OutboxPlatform platform(0, answer);
    SQLiteDB db(dbFile);
    QElapsedTimer clock;
    clock.start();
    Outbox::getInstance()->setCloudState(true);
    while (db.dataNum(table) > 0) {
        if (clock.elapsed() > timeoutMs)
            return -1;
        QThread::msleep(10);
    }
    return clock.elapsed();
}

}  // namespace lumbra::bench
