// History rows stored per second through the service's own sampling path:
// one group of local-word points read and inserted into history_iot.db, one
// row at a time, each in its own transaction as on the box.
#include "HistoricalData/HistoricalData.h"
#include "benchlink.h"

#include <QElapsedTimer>
#include <QMutexLocker>

using namespace lumbra::test;

int main(int argc, char **argv)
{
    const int rows = lumbra::bench::intArg(argc, argv, 1, 2000);
    const int points = lumbra::bench::intArg(argc, argv, 2, 10);
    zlog_init("/nonexistent");  // INFO to stdout; the summary is the last line
    g_zlog = zlog_get_category("iot");
    WorkDir work;
    QStringList sampled;
    for (int i = 0; i < points; ++i)
        sampled << QString(R"({"data_code":%1,"data_type":0,"data_readAddress":{"block":"LW","no":"%1"}})").arg(i);
    // Method 0: the group is never sampled on its own, only by the loop below.
    work.write("iotRunTime/HistoryConfiguration.json",
               QString(R"({"upload_func_state":true,"data":[{"group_id":1,"sample_method":0,"sample_data":[%1]}]})")
                   .arg(sampled.join(','))
                   .toUtf8());
    HistoricalData *his = HistoricalData::getInstance();
    if (!his->load() || his->HisDataCfgList().isEmpty()) {
        std::fprintf(stderr, "no group loaded\n");
        return 1;
    }
    QMutexLocker lock(&his->mutex());
    HistoricalData::HisDataCfg_t &group = his->HisDataCfgList().first();
    int stored = 0;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < rows; ++i)
        stored += his->sampleData(group) ? 1 : 0;
    const double seconds = clock.nsecsElapsed() / 1e9;
    if (stored != rows) {
        std::fprintf(stderr, "%d of %d inserts failed\n", rows - stored, rows);
        return 1;
    }
    std::printf("history inserts: %.0f rows/s (%d rows, %d points a row)\n", rows / seconds, rows, points);
    return 0;
}
