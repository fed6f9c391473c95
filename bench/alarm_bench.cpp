// One alarm tick (read every alarm's value, compare it with its limits) in
// steady state, where no condition holds and nothing is stored: once over
// addresses of a Modbus TCP link, once over the box's local LW registers.
#include "AlarmData/AlarmData.h"
#include "SQLiteDB/SQLiteDB.h"
#include "benchlink.h"
#include "modbusslave.h"
#include "rtdconfig.h"

#include <QElapsedTimer>
#include <QStringList>

#include <cstdio>

using namespace lumbra::test;

namespace {

// Word codes over u16, s16, s32 and float, none of which holds while the
// device reads 0.
QByteArray alarmConfig(int alarms, const char *block)
{
    static const char *const kinds[] = {
        R"("condition":5,"data_type":0,"limit_value":"100")",
        R"("condition":4,"data_type":2,"limit_value":"-3")",
        R"("condition":9,"data_type":3,"limit_min":"10","limit_max":"20")",
        R"("condition":8,"data_type":6,"limit_value":"1.5")",
        R"("condition":10,"data_type":0,"limit_min":"0","limit_max":"5")",
        R"("condition":7,"data_type":2,"limit_value":"50")",
    };
    QStringList items;
    for (int i = 0; i < alarms; ++i)
        items << QString(R"({"index":%1,"alarm_level":1,%2,"data_readAddress":{"link":"PLC1","block":"%3","no":"%4",)"
                         R"("sta":1,"length":1}})")
                     .arg(i + 1)
                     .arg(kinds[i % 6])
                     .arg(block)
                     .arg(i * 2 % 2000);
    return QString(R"({"upload_func_state":true,"data":[%1]})").arg(items.join(',')).toUtf8();
}

// Microseconds a tick takes, per 1000 alarms; negative when loading failed.
double tickCost(WorkDir &work, int alarms, int ticks, const char *block)
{
    work.write("iotRunTime/AlarmConfiguration.json", alarmConfig(alarms, block));
    AlarmData *ad = AlarmData::getInstance();
    if (!ad->load())
        return -1;
    QThread::sleep(2);  // the link polls every block once
    ad->evaluateAll();
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < ticks; ++i)
        ad->evaluateAll();
    return clock.nsecsElapsed() / 1e3 / ticks * 1000 / alarms;
}

}  // namespace

int main(int argc, char **argv)
{
    const int alarms = lumbra::bench::intArg(argc, argv, 1, 1000);
    const int ticks = lumbra::bench::intArg(argc, argv, 2, 2000);
    lumbra::bench::TcpLinkBench bench;
    if (!bench.start(MODBUS_TCP_DRIVER, 100))
        return 1;
    const double link = tickCost(bench.work, alarms, ticks, "4X");
    const double local = tickCost(bench.work, alarms, ticks, "LW");
    communication::getInstance()->stopLinks();
    if (link < 0 || local < 0) {
        std::fprintf(stderr, "no alarms loaded\n");
        return 1;
    }
    // Opening the store prints SQLite's version without a line end.
    const unsigned events = SQLiteDB("alarm_iot.db").dataNum("alarmdata");
    std::printf("\n");
    if (events > 0)
        std::fprintf(stderr, "warning: %u events stored, the ticks were not all steady state\n", events);
    std::printf("alarm tick: %.1f us per 1000 alarms on a Modbus TCP link, %.1f us on local LW registers "
                "(%d alarms, mean of %d ticks)\n",
                link, local, alarms, ticks);
    return 0;
}
