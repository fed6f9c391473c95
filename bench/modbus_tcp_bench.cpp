// Modbus TCP polls per second through the whole link path (link manager,
// link thread, reference driver, TCP client port) on loopback with
// "comm_time" 0, against a plain libmodbus client loop on the same slave in
// the same run: the ratio is what the gateway's path costs.
#include "benchlink.h"
#include "modbusslave.h"

#include <QElapsedTimer>

#include <modbus.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace lumbra::test;

namespace {

// Polls done by a bare libmodbus master in `seconds`, or -1.
int plainClientPolls(int port, int seconds, int registers)
{
    modbus_t *ctx = modbus_new_tcp("127.0.0.1", port);
    if (!ctx || modbus_connect(ctx) != 0) {
        if (ctx)
            modbus_free(ctx);
        return -1;
    }
    modbus_set_slave(ctx, 1);
    std::vector<uint16_t> regs(static_cast<size_t>(registers));
    QElapsedTimer clock;
    clock.start();
    int polls = 0;
    while (clock.elapsed() < seconds * 1000LL) {
        if (modbus_read_registers(ctx, 0, registers, regs.data()) == registers)
            ++polls;
    }
    modbus_close(ctx);
    modbus_free(ctx);
    return polls;
}

}  // namespace

int main(int argc, char **argv)
{
    const int seconds = lumbra::bench::intArg(argc, argv, 1, 10);
    const int registers = lumbra::bench::intArg(argc, argv, 2, 10);
    WorkDir work;
    BoxRoot box;
    int port = 0;
    auto slave = lumbra::bench::tcpSlave(&port);
    if (!slave)
        return 1;
    int plain = plainClientPolls(port, seconds, registers);
    if (plain <= 0) {
        std::fprintf(stderr, "the plain libmodbus client could not poll the slave\n");
        return 1;
    }
    lumbra::bench::startLink(work, MODBUS_TCP_DRIVER, "modbus_tcp",
                             QString(R"({"link_name":"PLC1","link_type":"Ethernet/TCP","link_driver":"modbus_tcp",
                             "hmi_ip":"127.0.0.1","hmi_port":"%1","plc_id":"1","comm_time":0,"timeout1":200,
                             "retry_times":1})")
                                 .arg(port),
                             registers);
    int gateway = lumbra::bench::countRequests(*slave, seconds);
    communication::getInstance()->stopLinks();

    std::printf("modbus_tcp on loopback, read %d holding registers: gateway link %.1f polls/s, plain libmodbus "
                "client %.1f polls/s over %d s each; ratio %.2f\n",
                registers, double(gateway) / seconds, double(plain) / seconds, seconds, double(gateway) / plain);
    return 0;
}
