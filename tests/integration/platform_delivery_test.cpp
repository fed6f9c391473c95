// lumbra-platform as a process between a real mosquitto and gateways that
// resend until acknowledged.
#include "dbconn.h"
#include "fakegateway.h"
#include "mosquittobroker.h"
#include "pgcluster.h"
#include "platformrun.h"
#include "testsupport.h"

#include <QRandomGenerator>
#include <QThread>

#include <gtest/gtest.h>

#include <memory>

using namespace lumbra::test;

namespace {

const int kRows = 3000;       // plain rows of group 1, per gateway
const int kPairs = 420;       // group 2: each sample twice in one second
const int kAlarmEvents = 120;  // alarm and recovery in turn, two a second

class Delivery : public ::testing::Test {
protected:
    MosquittoBroker broker;
    std::unique_ptr<PgCluster> pg;
    std::vector<std::unique_ptr<FakeGateway>> gateways;

    void SetUp() override { ASSERT_TRUE(broker.start()); }

    QString postgres()
    {
        pg = std::make_unique<PgCluster>();
        if (!pg->start() || !pg->createDatabase("lumbra"))
            ADD_FAILURE() << pg->log().toStdString();
        return pg->url("lumbra");
    }

    void addGateways(int n)
    {
        for (int i = 0; i < n; ++i) {
            gateways.push_back(std::make_unique<FakeGateway>(broker.port(), QString("GW%1").arg(i), 500));
            FakeGateway &g = *gateways.back();
            ASSERT_TRUE(g.connected());
            g.setBatchRows(50 + 25 * i);
            // An odd batch size splits equal pairs across batches, which only
            // rows named by the gateway keep apart (see the store's notes).
            g.setRowIds(i % 2 == 1);
        }
    }

    // A round's share of the rows and events, to every gateway.
    void feed(int rounds)
    {
        for (const auto &g : gateways) {
            g->addHistory(1, kRows / rounds);
            g->addHistory(2, kPairs / rounds, true);
            g->addAlarms(kAlarmEvents / rounds);
        }
    }

    bool drained()
    {
        for (const auto &g : gateways)
            if (g->historyLeft() || g->alarmsLeft())
                return false;
        return true;
    }

    std::string left()
    {
        std::string s;
        for (const auto &g : gateways)
            s += QString("%1: %2 rows, %3 events left; ")
                     .arg(g->serial())
                     .arg(g->historyLeft())
                     .arg(g->alarmsLeft())
                     .toStdString();
        return s;
    }

    // Every gateway's rows and events, each once, events in their order.
    void everythingOnce(const QString &db)
    {
        QString why;
        std::unique_ptr<platform::DbConn> c = platform::openDb(db, &why);
        ASSERT_TRUE(c) << why.toStdString();
        for (const auto &g : gateways) {
            SCOPED_TRACE(g->serial().toStdString());
            const qint64 gw = c->scalar("SELECT id FROM gateways WHERE sn = $1", {g->serial()});
            EXPECT_EQ(c->scalar("SELECT count(*) FROM history WHERE gw = $1 AND group_id = 1", {gw}), kRows);
            EXPECT_EQ(c->scalar("SELECT count(DISTINCT data_text) FROM history WHERE gw = $1 AND group_id = 1", {gw}),
                      kRows);
            // Each pair is two real samples: two rows, occurrences 0 and 1.
            EXPECT_EQ(c->scalar("SELECT count(*) FROM history WHERE gw = $1 AND group_id = 2", {gw}), 2 * kPairs);
            platform::SqlRows events;
            c->exec("SELECT type, time FROM alarms WHERE gw = $1 ORDER BY id", {gw}, &events);
            ASSERT_EQ(events.size(), size_t(kAlarmEvents));
            for (int i = 0; i < kAlarmEvents; ++i) {
                EXPECT_EQ(events[size_t(i)][0].toInt(), i % 2 ? 2 : 1) << "event " << i;
                EXPECT_EQ(events[size_t(i)][1].toLongLong(), 1000000 + i / 2) << "event " << i;
            }
        }
    }

    // Feeds the gateways in rounds. In each, soon after batches start to
    // flow, one gateway misses its acknowledgements for a moment (so the
    // platform gets stored rows and events again) and the platform is killed.
    void killRepeatedly(PlatformRun &p, int rounds)
    {
        QRandomGenerator rnd(7);
        for (int k = 0; k < rounds; ++k) {
            const qint64 before = p.status("messages");
            feed(rounds);
            ASSERT_TRUE(eventually([&] { return p.status("messages") > before + 5; }, 30000))
                << p.output().toStdString();
            gateways[size_t(k) % gateways.size()]->missAcks(rnd.bounded(20, 200));
            p.kill();
            QThread::msleep(rnd.bounded(100, 700));
            ASSERT_TRUE(p.start()) << p.output().toStdString();
        }
    }
};

TEST_F(Delivery, KilledMidBatchOnSqliteStoresEverythingOnce)
{
    PlatformRun p(LUMBRA_PLATFORM_BINARY, broker.port());
    ASSERT_TRUE(p.start()) << p.output().toStdString();
    ASSERT_NO_FATAL_FAILURE(addGateways(3));
    ASSERT_NO_FATAL_FAILURE(killRepeatedly(p, 6));
    ASSERT_TRUE(eventually([&] { return p.status("messages") >= 0 && drained(); }, 120000)) << left();
    everythingOnce(p.dbPath());
}

TEST_F(Delivery, KilledMidBatchOnPostgresStoresEverythingOnce)
{
    if (!PgCluster::available())
        GTEST_SKIP() << "PostgreSQL 15 is not installed (scripts/install-deps installs it)";
    const QString db = postgres();
    PlatformRun p(LUMBRA_PLATFORM_BINARY, broker.port(), db);
    ASSERT_TRUE(p.start()) << p.output().toStdString();
    ASSERT_NO_FATAL_FAILURE(addGateways(3));
    ASSERT_NO_FATAL_FAILURE(killRepeatedly(p, 6));
    ASSERT_TRUE(eventually([&] { return p.status("messages") >= 0 && drained(); }, 120000)) << left();
    everythingOnce(db);
}

// Two consumers of one shared subscription on one database: the broker
// hands each message to one of them, a resend perhaps to the other. One is
// killed on the way; the other carries on.
TEST_F(Delivery, TwoInstancesOnOnePostgresStoreEachMessageOnce)
{
    if (!PgCluster::available())
        GTEST_SKIP() << "PostgreSQL 15 is not installed (scripts/install-deps installs it)";
    const QString db = postgres();
    PlatformRun a(LUMBRA_PLATFORM_BINARY, broker.port(), db), b(LUMBRA_PLATFORM_BINARY, broker.port(), db);
    for (PlatformRun *p : {&a, &b}) {
        p->addArgs({"--share", "lumbra"});
        ASSERT_TRUE(p->start()) << p->output().toStdString();
    }
    ASSERT_NO_FATAL_FAILURE(addGateways(4));
    ASSERT_NO_FATAL_FAILURE(killRepeatedly(b, 2));
    ASSERT_TRUE(eventually([&] { return a.status("messages") >= 0 && drained(); }, 120000)) << left();
    EXPECT_GT(a.status("messages"), 0);
    EXPECT_GT(b.status("messages"), 0);
    everythingOnce(db);
}

}  // namespace
