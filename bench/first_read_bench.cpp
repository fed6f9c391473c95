// The first read of an address that a script names at run time, on a link
// whose poll cycle is long: each new address is registered as the script
// engine registers it, then read through the link manager with the wait a
// first getdata has. Reports how long the reads took and how many had the
// device's value, against the link's poll cycle.
#include "benchlink.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <algorithm>
#include <vector>

namespace {

const int kSpacing = 20;  // registers between polled blocks, more than the merge gap
const int kFirstNew = 1800;

ExternalAddr address(int number, int type)
{
    communication *comm = communication::getInstance();
    const QString text = QString::number(number);
    return ExternalAddrTable::makeAddr("PLC1", "4X", text, 1, 1, type, comm->getIndexFromAddr("PLC1", "4X", text, 1, 1));
}

bool firstCycleDone(int timeoutMs)
{
    QElapsedTimer waited;
    waited.start();
    while (!communication::getInstance()->linksWithoutFirstPoll().isEmpty()) {
        if (waited.elapsed() > timeoutMs)
            return false;
        QThread::msleep(20);
    }
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    const int blocks = lumbra::bench::intArg(argc, argv, 1, 80);
    const int reads = qBound(1, lumbra::bench::intArg(argc, argv, 2, 40), 200);
    const int commTime = lumbra::bench::intArg(argc, argv, 3, 15);
    QCoreApplication app(argc, argv);
    lumbra::bench::TcpLinkBench bench;
    if (!bench.start(MODBUS_TCP_DRIVER, commTime))
        return 1;
    communication *comm = communication::getInstance();
    QVector<ExternalAddr> polled;
    for (int i = 0; i < blocks; ++i)
        polled << address(i * kSpacing, EXTERNAL_ADDR_REALDATA);
    comm->setExternalAddrs(polled, EXTERNAL_ADDR_REALDATA);
    if (!firstCycleDone(60000)) {
        std::fprintf(stderr, "the link did not finish a first poll cycle\n");
        return 1;
    }
    const int perSecond = lumbra::bench::countRequests(*bench.slave, 2) / 2;
    const int cycleMs = perSecond > 0 ? blocks * 1000 / perSecond : -1;

    std::vector<double> ms;
    int good = 0;
    QVector<ExternalAddr> learned;
    for (int k = 0; k < reads; ++k) {
        const int number = kFirstNew + k * 2;
        bench.slave->setHolding(number, static_cast<uint16_t>(number));
        learned << address(number, EXTERNAL_ADDR_MACRO);
        QElapsedTimer took;
        took.start();
        comm->setExternalAddrs(learned, EXTERNAL_ADDR_MACRO);
        uint16_t v = 0;
        int quality = -1;
        const int rc = comm->getCommValue("PLC1", "4X", learned.back().index, 1, 1, reinterpret_cast<uchar *>(&v),
                                          2, LUMBRA_KIND_16BIT, &quality, 1000);
        ms.push_back(took.nsecsElapsed() / 1e6);
        good += rc == 1 && v == number;
        QThread::msleep(37);  // lands anywhere in the exchange under way
    }
    comm->stopLinks();
    std::sort(ms.begin(), ms.end());
    std::printf("first reads of %d new addresses on a link of %d blocks (comm_time %d ms, poll cycle %d ms, "
                "timeout1 200 ms): median %.1f ms, max %.1f ms; %d of %d had the device's value\n",
                reads, blocks, commTime, cycleMs, ms[ms.size() / 2], ms.back(), good, reads);
    return good == reads ? 0 : 1;
}
