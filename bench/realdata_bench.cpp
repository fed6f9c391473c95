// One real-time pass (read through the link manager and the Modbus driver,
// format, serialise) over many points on one Modbus TCP link.
#include "RealData/RealData.h"
#include "benchlink.h"
#include "modbusslave.h"
#include "rtdconfig.h"

#include <QElapsedTimer>

#include <cstdio>
#include <cstdlib>

using namespace lumbra::test;

int main(int argc, char **argv)
{
    const int points = lumbra::bench::intArg(argc, argv, 1, 10000);
    const int passes = lumbra::bench::intArg(argc, argv, 2, 50);
    const int commTimeMs = lumbra::bench::intArg(argc, argv, 3, 100);
    lumbra::bench::TcpLinkBench bench;
    bench.work.write("iotRunTime/RealTimeConfiguration.json", lumbra::bench::rtdConfig(points));
    if (!bench.start(MODBUS_TCP_DRIVER, commTimeMs))
        return 1;
    RealData *rd = RealData::getInstance();
    if (!rd->load()) {
        std::fprintf(stderr, "no points loaded\n");
        return 1;
    }
    rd->setUploadFunState(true);
    QThread::sleep(2);  // the link polls every block once

    qint64 bytes = 0;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < passes; ++i)
        bytes += rd->rtdMessage(false).size();
    const double ms = clock.nsecsElapsed() / 1e6 / passes;
    communication::getInstance()->stopLinks();
    std::printf("real-time pass over %d points (read, format, serialise), link comm_time %d ms: %.2f ms a pass, "
                "%.3f us a point, %lld bytes a message, mean of %d passes\n",
                points, commTimeMs, ms, ms * 1000 / points, bytes / passes, passes);
    return 0;
}
