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

#include <cstdio>
#include <functional>

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

// Milliseconds from the cloud coming up until the table is empty; -1, with
// a message, when it is not within timeoutMs.
inline qint64 drainMs(const char *dbFile, const char *table, const lumbra::test::OutboxPlatform::Answer &answer,
                      int timeoutMs)
{
    lumbra::test::OutboxPlatform platform(0, answer);
    SQLiteDB db(dbFile);
    QElapsedTimer clock;
    clock.start();
    Outbox::getInstance()->setCloudState(true);
    while (db.dataNum(table) > 0) {
        if (clock.elapsed() > timeoutMs) {
            std::fprintf(stderr, "the backlog did not drain\n");
            return -1;
        }
        QThread::msleep(10);
    }
    return clock.elapsed();
}

// Drains the backlog, stops the service and prints summary(ms) as the last
// line; the exit code.
inline int drainAndReport(const char *dbFile, const char *table, const lumbra::test::OutboxPlatform::Answer &answer,
                          const std::function<void()> &stop, const std::function<QString(qint64)> &summary)
{
    const qint64 ms = drainMs(dbFile, table, answer, 600000);
    stop();
    if (ms < 0)
        return 1;
    std::printf("\n%s\n", summary(qMax<qint64>(ms, 1)).toLocal8Bit().constData());
    return 0;
}

}  // namespace lumbra::bench
