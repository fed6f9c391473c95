// lumbra-platform's ingest rate: gateways on a local mosquitto publish
// real-time uploads and history batches as fast as they can, and the clock
// runs until the platform has stored them all (and acknowledged every
// batch). With SQLite, with PostgreSQL, and with two instances sharing one
// PostgreSQL through a shared subscription.
//
//   bench_platform [real-time messages] [history batches]   (defaults 20000 2000)
//
// Each real-time message carries 20 points, each batch 100 rows; 20 gateways
// share the work. PostgreSQL runs a throw-away cluster with fsync on.
#include "fakegateway.h"
#include "mosquittobroker.h"
#include "pgcluster.h"
#include "platformrun.h"
#include "testsupport.h"

#include <QElapsedTimer>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

using namespace lumbra::test;

namespace {

const int kGateways = 20;
const int kPoints = 20;
const int kRows = 100;

QByteArray realTime(int n)
{
    QByteArray p = "{\"sn_code\":\"x\",\"data\":[";
    for (int c = 0; c < kPoints; ++c)
        p += (c ? ",{\"code\":" : "{\"code\":") + QByteArray::number(c) + ",\"data\":\"" + QByteArray::number(n + c) +
             ".5\"}";
    return p + "]}";
}

QByteArray batch(int n)
{
    QByteArray p = "{\"group_id\":1,\"data_samples\":\"0_0\",\"data\":[";
    for (int r = 0; r < kRows; ++r)
        p += (r ? ",{" : "{") + QByteArray("\"data_text\":\"") + QByteArray::number(n * kRows + r) +
             "\\n21.5\",\"data_time\":\"" + QByteArray::number(1000000 + n * kRows + r) + "\"}";
    return p + "]}";
}

struct Run {
    std::vector<std::unique_ptr<PlatformRun>> platforms;

    qint64 sum(const char *key)
    {
        qint64 n = 0;
        for (auto &p : platforms)
            n += std::max<qint64>(0, p->status(key));
        return n;
    }
};

// Publishes count messages made by make() round-robin over the gateways and
// returns the seconds until key (summed over the platforms) grew by want.
double measure(Run &run, std::vector<std::unique_ptr<FakeGateway>> &gws, const QByteArray &topic,
               QByteArray (*make)(int), int count, const char *key, qint64 want)
{
    const qint64 start = run.sum(key);
    std::vector<QByteArray> payloads;
    payloads.reserve(size_t(count));
    for (int i = 0; i < count; ++i)
        payloads.push_back(make(i));
    QElapsedTimer t;
    t.start();
    for (int i = 0; i < count; ++i)
        gws[size_t(i % kGateways)]->publish(topic, payloads[size_t(i)]);
    if (!eventually([&] { return run.sum(key) - start >= want; }, 600000)) {
        fprintf(stderr, "only %lld of %lld %s (dropped %lld)\n", static_cast<long long>(run.sum(key) - start),
                static_cast<long long>(want), key, static_cast<long long>(run.sum("dropped")));
        return -1;
    }
    return t.elapsed() / 1000.0;
}

void bench(const char *name, const QString &db, int instances, int rtd, int batches)
{
    MosquittoBroker broker;
    // Nothing dropped on the way: the platform's pace is what is measured.
    broker.addConfig("max_queued_messages 0\nmax_queued_bytes 0");
    if (!broker.start())
        exit(1);
    Run run;
    for (int i = 0; i < instances; ++i) {
        run.platforms.push_back(std::make_unique<PlatformRun>(LUMBRA_PLATFORM_BINARY, broker.port(), db));
        if (instances > 1)
            run.platforms.back()->addArgs({"--share", "bench"});
        if (!run.platforms.back()->start()) {
            fprintf(stderr, "%s\n", run.platforms.back()->output().toLocal8Bit().constData());
            exit(1);
        }
    }
    std::vector<std::unique_ptr<FakeGateway>> gws;
    for (int g = 0; g < kGateways; ++g) {
        gws.push_back(std::make_unique<FakeGateway>(broker.port(), QString("BENCH%1").arg(g)));
        if (!gws.back()->connected())
            exit(1);
    }
    // Registers the gateways first, so that only steady ingest is timed.
    measure(run, gws, "/DevSend/RTD", realTime, kGateways, "stored", kGateways);

    const double rt = measure(run, gws, "/DevSend/RTD", realTime, rtd, "stored", rtd);
    const double hist = measure(run, gws, "/DevSend/Sequential/HisData", batch, batches, "history_stored",
                                qint64(batches) * kRows);
    printf("%-34s real-time %6.0f msg/s (%7.0f points/s) | history %5.0f batches/s (%7.0f rows/s)\n", name,
           rtd / rt, rtd * kPoints / rt, batches / hist, batches * kRows / hist);
    fflush(stdout);
}

}  // namespace

int main(int argc, char **argv)
{
    const int rtd = argc > 1 ? atoi(argv[1]) : 20000;
    const int batches = argc > 2 ? atoi(argv[2]) : 2000;
    QTemporaryDir dir;
    bench("SQLite, one instance", dir.path() + "/bench.db", 1, rtd, batches);
    if (!PgCluster::available()) {
        printf("PostgreSQL 15 not installed: its figures are left out\n");
        return 0;
    }
    PgCluster pg(true);
    if (!pg.start() || !pg.createDatabase("one") || !pg.createDatabase("two")) {
        fprintf(stderr, "%s\n", pg.log().toLocal8Bit().constData());
        return 1;
    }
    bench("PostgreSQL, one instance", pg.url("one"), 1, rtd, batches);
    bench("PostgreSQL, two instances, shared", pg.url("two"), 2, rtd, batches);
    return 0;
}
