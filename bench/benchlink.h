// One Modbus link through the whole gateway path, for the throughput
// benchmarks: stages the driver, writes the link file and registers a
// block of holding registers for polling (none when registers is 0).
#pragma once

#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "testsupport.h"

#include <QThread>

namespace lumbra::bench {

// linkJson is one link object named "PLC1" that uses `driver`.
inline void startLink(lumbra::test::WorkDir &work, const QString &driverFile, const QString &driver,
                      const QString &linkJson, int registers)
{
    zlog_init("/nonexistent");  // INFO to stdout; the bench prints its own lines
    g_zlog = zlog_get_category("iot");
    work.write("iotRunTime/driver/lib" + driver + ".so", lumbra::test::readFile(driverFile));
    work.write("iotRunTime/LinkConfiguration.json", ("{\"data\":[" + linkJson + "]}").toUtf8());
    communication *comm = communication::getInstance();
    comm->initLinks();
    if (registers > 0) {
        int index = comm->getIndexFromAddr("PLC1", "4X", "0", 1, 1);
        comm->setExternalAddrInfo({ExternalAddrTable::makeKey("PLC1", "4X", "0", 1, registers, 0, index)}, 0);
    }
    comm->enableExternalAddrInfo(true);
}

// Requests the slave counted over `seconds`, after a short settling time.
template <typename Slave>
int countRequests(Slave &slave, int seconds)
{
    QThread::msleep(500);
    int before = slave.requests();
    QThread::sleep(static_cast<unsigned long>(seconds));
    return slave.requests() - before;
}

}  // namespace lumbra::bench
