// Resident memory of the running gateway with many real-time points on one
// Modbus TCP link, uploading to a nanomsg peer standing in for the agent.
#include "agentpeer.h"
#include "modbusslave.h"
#include "procstat.h"
#include "process.h"
#include "rtdconfig.h"
#include "tcplink.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>

using namespace lumbra::test;

using lumbra::bench::residentKb;

int main(int argc, char **argv)
{
    const int points = argc > 1 ? std::atoi(argv[1]) : 10000;
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 10;
    QTemporaryDir work, root;
    int port = freeTcpPort();
    auto slave = ModbusSlave::tcp(port, 1);
    AgentPeer agent(QString("tcp://127.0.0.1:%1").arg(freeTcpPort()));
    if (!slave || !agent.bound()) {
        std::fprintf(stderr, "cannot start the slave or the agent peer\n");
        return 1;
    }
    writeFile(root.path() + "/usr/brenta/iot_conf/sn.conf", "LUMBRA-BENCH");
    writeFile(work.path() + "/zlog.conf", "[rules]\niot.WARN >stdout\n");
    writeTcpLink(work.path(), MODBUS_TCP_DRIVER, port, 100);
    writeFile(work.path() + "/iotRunTime/RealTimeConfiguration.json", lumbra::bench::rtdConfig(points));
    ChildProcess gw;
    gw.setEnv("LUMBRA_SYSROOT", root.path());
    gw.setEnv("LUMBRA_AGENT_URL", agent.url());
    if (!gw.start(gatewayBinary(), {}, work.path())) {
        std::fprintf(stderr, "cannot start the gateway\n");
        return 1;
    }
    int uploads = 0;
    long peak = 0;
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < seconds * 1000LL) {
        if (agent.receiveTopic("/DevSend/RTD", 500).ok())
            ++uploads;
        peak = qMax(peak, residentKb(gw.pid()));
    }
    long now = residentKb(gw.pid());
    std::printf("gateway with %d real-time points on one Modbus TCP link: resident %.1f MB after %d s (peak %.1f MB), "
                "%d uploads received\n",
                points, now / 1024.0, seconds, peak / 1024.0, uploads);
    if (!gw.running())
        std::fprintf(stderr, "the gateway ended:\n%s\n", gw.output().toLocal8Bit().constData());
    return gw.running() ? 0 : 1;
}
