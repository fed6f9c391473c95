// lumbra-plcsim: a Modbus slave that plays a PLC for demos, manual tests and
// load tests of the gateway.
#include "loop.h"
#include "options.h"
#include "plcmap.h"
#include "responder.h"
#include "rtuserver.h"
#include "signals.h"
#include "tcpserver.h"

#include <cstdio>
#include <memory>

using namespace plcsim;

namespace {

std::unique_ptr<Transport> openTransport(const Options &opts, Responder &responder)
{
    if (opts.rtu)
        return RtuServer::open(opts, responder);
    return TcpServer::open(opts, responder);
}

}  // namespace

int main(int argc, char **argv)
{
    // Scripts wait for the start line and read -v logs through a pipe.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Options opts;
    std::string problem;
    switch (parseOptions(argc, argv, opts, problem)) {
    case ParseResult::Help:
        std::printf("%s\n%s", kUsageLine, kHelpText);
        return 0;
    case ParseResult::Bad:
        std::fprintf(stderr, "%s\nplcsim: %s\n", kUsageLine, problem.c_str());
        return 2;
    case ParseResult::Run:
        break;
    }
    StopSignals stop;
    PlcMap map(opts.registers, opts.alarmPeriodS);
    if (!map.ok()) {
        std::fprintf(stderr, "plcsim: no memory for %d registers\n", opts.registers);
        return 1;
    }
    Responder responder(map, opts);
    std::unique_ptr<Transport> transport = openTransport(opts, responder);
    if (!transport)
        return 1;
    std::printf("plcsim: %s, unit %d, %d registers, update every %d ms\n", transport->describe().c_str(), opts.unit,
                opts.registers, opts.rateMs);
    return runLoop(*transport, map, opts.rateMs, stop);
}
