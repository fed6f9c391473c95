// The platform's store against SQLite and a throw-away PostgreSQL: what the
// gateway sends again (a resend, a batch cut afresh after a restart, an event
// under a new request id) is stored once, while real samples and events that
// merely look alike are all kept; nothing is acknowledged before it is stored.
#include "dbconn.h"
#include "pgcluster.h"
#include "schema.h"
#include "storewriter.h"
#include "testsupport.h"
#include "writer.h"

#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

using namespace platform;
using namespace lumbra::test;

namespace {

enum class Backend { Sqlite, Postgres };

Inbound message(TopicKind kind, const QString &serial = "SN1")
{
    Inbound m;
    m.kind = kind;
    m.serial = serial;
    m.version = "3.0.0";
    m.prefix = "/" + serial.toUtf8() + "_3.0.0";
    m.receivedMs = 1700000000000;
    return m;
}

// rows: "time text", or "time text #rowid" for a gateway that names its rows.
Inbound batch(quint32 group, const QStringList &rows, const QString &serial = "SN1")
{
    Inbound m = message(TopicKind::History, serial);
    m.groupId = group;
    for (const QString &r : rows) {
        const QString id = r.section(" #", 1);
        m.rows.append({r.section(' ', 0, 0).toLongLong(), r.section(' ', 1).section(" #", 0, 0),
                       id.isEmpty() ? -1 : id.toLongLong()});
    }
    return m;
}

Inbound alarm(int type, qint64 time, quint32 reqId, int index = 1)
{
    Inbound m = message(TopicKind::Alarm);
    m.alarm = {index, 2, type, type == 1 ? "ON" : "OFF", time, reqId, type == 1 ? "/DevSend/Alarm" : "/DevSend/AlarmRecover"};
    return m;
}

class Store : public ::testing::TestWithParam<Backend> {
protected:
    QTemporaryDir dir;
    std::unique_ptr<PgCluster> pg;
    QString target;

    void SetUp() override
    {
        if (GetParam() == Backend::Postgres) {
            if (!PgCluster::available())
                GTEST_SKIP() << "PostgreSQL 15 is not installed (scripts/install-deps installs it)";
            pg = std::make_unique<PgCluster>();
            ASSERT_TRUE(pg->start()) << pg->log().toStdString();
            ASSERT_TRUE(pg->createDatabase("lumbra")) << pg->log().toStdString();
            target = pg->url("lumbra");
        } else {
            target = dir.path() + "/platform.db";
        }
    }

    std::unique_ptr<DbConn> connect()
    {
        QString why;
        std::unique_ptr<DbConn> db = openDb(target, &why);
        EXPECT_TRUE(db) << why.toStdString();
        EXPECT_TRUE(db && createSchema(*db, &why)) << why.toStdString();
        return db;
    }

    qint64 count(const QByteArray &sql)
    {
        return connect()->scalar(sql, {});
    }

    // Stores each list as one transaction, in order.
    std::vector<BatchOutcome> storeAll(const std::vector<std::vector<Inbound>> &batches)
    {
        std::unique_ptr<DbConn> db = connect();
        StoreWriter w(*db);
        std::vector<BatchOutcome> out;
        for (const auto &b : batches) {
            out.emplace_back();
            EXPECT_TRUE(w.store(b, &out.back())) << db->error().toStdString();
        }
        return out;
    }
};

struct HistoryCase {
    const char *name;
    std::vector<std::vector<QStringList>> transactions;  // batches of rows, grouped by transaction
    qint64 stored;
};

TEST_P(Store, HistoryRowsAreStoredOnceWhateverTheResends)
{
    const QStringList abc{"10 a", "11 b", "12 c"};
    const HistoryCase cases[] = {
        {"a resent batch adds nothing", {{abc}, {abc}, {abc}}, 3},
        {"both copies in one transaction", {{abc, abc}}, 3},
        {"equal samples of one batch are two rows", {{{"10 a", "10 a", "11 b"}}, {{"10 a", "10 a", "11 b"}}}, 3},
        {"a batch cut afresh after a restart adds only its new rows", {{abc}, {abc + QStringList{"13 d", "14 e"}}}, 5},
        {"equal samples cut apart by a restart", {{{"10 a", "10 a"}}, {{"10 a", "10 a", "10 a"}}}, 3},
        {"same second, other values", {{{"10 a", "10 b", "10 a b"}}}, 3},
        // Without row ids this pair would be taken for a resend: the limit of
        // telling rows apart by content.
        {"equal samples split by a batch boundary, rows named", {{{"9 z #1", "10 a #2"}}, {{"10 a #3", "11 b #4"}}}, 4},
        {"a named batch resent and cut afresh", {{{"10 a #2", "10 a #3"}}, {{"10 a #2", "10 a #3", "11 b #4"}}}, 3},
    };
    for (const HistoryCase &c : cases) {
        SCOPED_TRACE(c.name);
        connect()->exec("DELETE FROM history");
        std::vector<std::vector<Inbound>> transactions;
        for (const auto &t : c.transactions) {
            transactions.emplace_back();
            for (const QStringList &rows : t)
                transactions.back().push_back(batch(1, rows));
        }
        const std::vector<BatchOutcome> outs = storeAll(transactions);
        EXPECT_EQ(count("SELECT count(*) FROM history"), c.stored);
        size_t stored = 0, acks = 0, sent = 0;
        for (const BatchOutcome &o : outs) {
            stored += static_cast<size_t>(o.historyStored);
            acks += o.acks.size();
        }
        for (const auto &t : transactions)
            sent += t.size();
        EXPECT_EQ(stored, size_t(c.stored));
        // Every copy is acknowledged, a duplicate as much as the first.
        EXPECT_EQ(acks, sent);
    }
}

struct AlarmCase {
    const char *name;
    std::vector<Inbound> events;
    QStringList stored;  // "type time" in order
};

TEST_P(Store, AlarmEventsAreStoredOnceWhateverTheResends)
{
    const AlarmCase cases[] = {
        {"a resend under the same reqId", {alarm(1, 10, 7), alarm(1, 10, 7)}, {"1 10"}},
        {"a gateway restarted before the ack: same event, new reqId", {alarm(1, 10, 7), alarm(1, 10, 9001)}, {"1 10"}},
        {"a late copy after the next event", {alarm(1, 10, 7), alarm(2, 11, 8), alarm(1, 10, 7)}, {"1 10", "2 11"}},
        {"a flapping bit: alarm, recovery, alarm in one second",
         {alarm(1, 10, 1), alarm(2, 10, 2), alarm(1, 10, 3), alarm(1, 10, 3)},
         {"1 10", "2 10", "1 10"}},
        {"two alarms raised in one second", {alarm(1, 10, 1, 1), alarm(1, 10, 2, 2)}, {"1 10", "1 10"}},
    };
    for (const AlarmCase &c : cases) {
        SCOPED_TRACE(c.name);
        connect()->exec("DELETE FROM alarms");
        std::vector<std::vector<Inbound>> one;
        for (const Inbound &e : c.events)
            one.push_back({e});
        const std::vector<BatchOutcome> outs = storeAll(one);
        SqlRows rows;
        connect()->exec("SELECT type, time FROM alarms ORDER BY id", {}, &rows);
        QStringList got;
        for (const SqlRow &r : rows)
            got << QString("%1 %2").arg(QString(r[0]), QString(r[1]));
        EXPECT_EQ(got, c.stored);
        // Every copy is acknowledged under the reqId it came with.
        for (size_t i = 0; i < outs.size(); ++i) {
            ASSERT_EQ(outs[i].acks.size(), 1u);
            EXPECT_TRUE(outs[i].acks[0].payload.contains("\"reqId\":\"" + QByteArray::number(c.events[i].alarm.reqId)))
                << outs[i].acks[0].payload.constData();
        }
    }
}

TEST_P(Store, ARecoveryClosesTheAlarmItFollows)
{
    storeAll({{alarm(1, 10, 1)}, {alarm(2, 15, 2)}, {alarm(1, 20, 3)}});
    SqlRows rows;
    connect()->exec("SELECT time, recovered_time FROM alarms WHERE type = 1 ORDER BY id", {}, &rows);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0][1], "15");
    EXPECT_EQ(rows[1][1], "-1");
}

TEST_P(Store, APointKeepsItsNewestValue)
{
    Inbound newer = message(TopicKind::RealTime), older = message(TopicKind::RealTime);
    newer.points = {{1, "new"}, {2, "x"}};
    older.points = {{1, "old"}};
    older.receivedMs = newer.receivedMs - 1000;
    // Two instances may store a gateway's updates out of order.
    storeAll({{newer}, {older}});
    SqlRows rows;
    connect()->exec("SELECT code, value FROM points ORDER BY code", {}, &rows);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0][1], "new");
}

// Two writers on one database take the same stream (as two instances when a
// resend goes to the other one): every row and event once.
TEST_P(Store, TwoWritersStoreEachRowOnce)
{
    std::vector<Inbound> stream;
    for (int b = 0; b < 40; ++b) {
        QStringList rows;
        for (int r = 0; r < 20; ++r)
            rows << QString("%1 v%2").arg(1000 + b * 20 + r).arg(r);
        stream.push_back(batch(static_cast<quint32>(b % 3), rows, b % 2 ? "SN1" : "SN2"));
        stream.push_back(alarm(b % 2 + 1, 100 + b, static_cast<quint32>(b)));
    }
    auto run = [&](int seed) {
        std::unique_ptr<DbConn> db = connect();
        StoreWriter w(*db);
        for (size_t i = 0; i < stream.size(); i += 4) {
            std::vector<Inbound> part(stream.begin() + i, stream.begin() + std::min(stream.size(), i + 4));
            if (seed)
                std::reverse(part.begin(), part.end());
            BatchOutcome out;
            for (int attempt = 0; attempt < 20 && !w.store(part, &out); ++attempt)
                ASSERT_EQ(db->fault(), DbFault::Retry) << db->error().toStdString();
        }
    };
    std::thread a(run, 0), b(run, 1);
    a.join();
    b.join();
    EXPECT_EQ(count("SELECT count(*) FROM history"), 40 * 20);
    EXPECT_EQ(count("SELECT count(*) FROM alarms"), 40);
}

// The database goes away under the writer: nothing is acknowledged until
// the batch it holds is stored, and then it is stored once.
TEST_P(Store, NothingIsAcknowledgedBeforeTheCommit)
{
    if (GetParam() != Backend::Postgres)
        GTEST_SKIP() << "a SQLite file does not go away";
    IngestQueue queue(100, 1 << 20);
    std::mutex m;
    std::vector<Outgoing> acks;
    Writer writer(
        connect(), queue, nullptr,
        [&](const Outgoing &o) {
            std::lock_guard<std::mutex> lock(m);
            acks.push_back(o);
        },
        [](const Change &) {}, 0);
    writer.start();
    pg->stop();
    queue.push(batch(1, {"10 a", "11 b"}));
    queue.push(alarm(1, 10, 5));
    QThread::msleep(1500);
    {
        std::lock_guard<std::mutex> lock(m);
        EXPECT_TRUE(acks.empty());
    }
    EXPECT_FALSE(writer.stats().databaseUp);
    ASSERT_TRUE(pg->resume()) << pg->log().toStdString();
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(m);
        return acks.size() == 2;
    }, 30000));
    writer.stop();
    EXPECT_EQ(count("SELECT count(*) FROM history"), 2);
    EXPECT_EQ(count("SELECT count(*) FROM alarms WHERE acked = 1"), 1);
}

INSTANTIATE_TEST_SUITE_P(Backends, Store, ::testing::Values(Backend::Sqlite, Backend::Postgres),
                         [](const auto &info) { return info.param == Backend::Sqlite ? "Sqlite" : "Postgres"; });

}  // namespace
