// Modbus RTU transactions per second through the whole link path (link
// manager, link thread, reference driver, serial port) over a line paced at
// 115200 baud, against a libmodbus slave, compared with what the line itself
// allows. The link polls back to back (comm_time 0).
#include "benchlink.h"
#include "modbusslave.h"
#include "pacedline.h"
#include "testsupport.h"

#include <cstdio>
#include <cstdlib>

using namespace lumbra::test;

namespace {

// Start + 8 data + parity slot + stop, as RTU counts a character.
const int kBitsPerChar = 11;

// Bytes on the wire for one read of n holding registers, plus the 3.5
// character silence that ends each of the two frames.
double lineLimitPerSecond(int baud, int registers)
{
    const double charsPerSecond = double(baud) / kBitsPerChar;
    const double request = 8, reply = 5 + 2.0 * registers, gaps = 2 * 3.5;
    return charsPerSecond / (request + reply + gaps);
}

}  // namespace

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 10;
    const int registers = argc > 2 ? std::atoi(argv[2]) : 10;
    WorkDir work;
    BoxRoot box;
    lumbra::bench::PacedLine line(box.path() + "/dev/ttyO1", box.path() + "/slave", 115200, kBitsPerChar);
    auto slave = line.ok() ? ModbusSlave::rtu(line.linkB(), 115200, 1) : nullptr;
    if (!slave) {
        std::fprintf(stderr, "cannot start the pty and the slave\n");
        return 1;
    }
    lumbra::bench::startLink(work, MODBUS_RTU_DRIVER, "modbus_rtu",
                             R"({"link_name":"PLC1","link_type":"COM1","link_driver":"modbus_rtu","baudrate":"115200",
                             "data_bit":"8","stop_bit":"1","check_bit":"NONE","plc_id":"1","comm_time":0,
                             "timeout1":200,"retry_times":1})",
                             registers);
    int done = lumbra::bench::countRequests(*slave, seconds);
    communication::getInstance()->stopLinks();

    double rate = double(done) / seconds;
    double limit = lineLimitPerSecond(115200, registers);
    std::printf("modbus_rtu over a paced pty line @115200, read %d holding registers: %.1f transactions/s over %d s; "
                "line-rate limit %.1f/s; ratio %.2f\n",
                registers, rate, seconds, limit, rate / limit);
    return 0;
}
