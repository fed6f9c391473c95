// One Modbus link through the whole gateway path, for the throughput
// benchmarks: stages the driver, writes the link file and registers a
// block of holding registers for polling (none when registers is 0).
#pragma once

#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "tcplink.h"
#include "testsupport.h"

#include "modbusslave.h"

#include <QThread>

#include <cstdio>
#include <cstdlib>
#include <memory>

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

// Argument n of the command line as a number, or def.
inline int intArg(int argc, char **argv, int n, int def)
{
    return argc > n ? std::atoi(argv[n]) : def;
}

// A libmodbus TCP slave (unit 1) on a free loopback port; null, with a
// message, when it cannot start.
inline std::unique_ptr<lumbra::test::ModbusSlave> tcpSlave(int *port)
{
    *port = lumbra::test::freeTcpPort();
    auto slave = lumbra::test::ModbusSlave::tcp(*port, 1);
    if (!slave)
        std::fprintf(stderr, "cannot start the Modbus TCP slave\n");
    return slave;
}

// What the TCP benchmarks share: a working dir, a box root and a libmodbus
// TCP slave; start() brings the link "PLC1" to it up.
struct TcpLinkBench {
    lumbra::test::WorkDir work;
    lumbra::test::BoxRoot box;
    int port = 0;
    std::unique_ptr<lumbra::test::ModbusSlave> slave = tcpSlave(&port);

    bool start(const QString &driverFile, int commTimeMs, int registers = 0)
    {
        if (!slave)
            return false;
        startLink(work, driverFile, "modbus_tcp", lumbra::test::tcpLinkJson(port, commTimeMs), registers);
        return true;
    }
};

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
