#include "options.h"

#include <arpa/inet.h>
#include <modbus.h>

#include <cstdlib>

namespace plcsim {

const char kUsageLine[] =
    "usage: lumbra-plcsim [--tcp [ADDR:]PORT | --rtu] [--link PATH] [--baud N] [--unit ID]"
    " [--registers N] [--rate MS] [--alarm-period S] [--holes LIST] [--exception CODE@ADDR,...]"
    " [--reply-unit N] [--noise N] [-v] [-h]";

const char kHelpText[] =
    "A simulated PLC: a Modbus slave whose registers change over time.\n"
    "  --tcp [ADDR:]PORT   Modbus TCP on ADDR (default 127.0.0.1), PORT (default 5020)\n"
    "  --rtu               Modbus RTU on a new pseudo-terminal (its path is printed)\n"
    "  --link PATH         with --rtu: a symlink PATH to the pseudo-terminal, removed at exit\n"
    "  --baud N            with --rtu: line speed, 8N1 (default 9600)\n"
    "  --unit ID           unit id answered, 1..247 (default 1; TCP also answers 255)\n"
    "  --registers N       size of each area, 64..65536 (default 10000)\n"
    "  --rate MS           update period of the live values, 10..60000 (default 1000)\n"
    "  --alarm-period S    the alarm toggles every S seconds, 1..3600 (default 10)\n"
    "  --holes LIST        addresses that do not exist, e.g. 50-59,70: a request touching\n"
    "                      one gets exception 2 (illegal data address), in every area\n"
    "  --exception LIST    CODE@ADDR or CODE@FIRST-LAST pairs, e.g. 4@7,11@300-302: a request\n"
    "                      touching ADDR gets exception CODE (1-4, 10, 11)\n"
    "  --reply-unit N      TCP: every reply carries unit id N (0..255), as some devices do\n"
    "  --noise N           RTU: N random bytes (0..255) on the line before every reply\n"
    "  -v                  log every request\n"
    "  -h                  this help\n"
    "Holding registers: 0 counter, 1 sine, 2-3 float temperature (high word first),\n"
    "4-10 BCD clock, 11-18 clock text (high byte first), 20 alarm word,\n"
    "21-99 free for masters (never changed), 100.. bulk values; coil 0 the alarm.\n"
    "Input registers and discrete inputs mirror holding registers and coils.\n";

namespace {

struct NumberOption {
    const char *name;
    int Options::*field;
    int min;
    int max;
};

const NumberOption kNumbers[] = {
    {"--baud", &Options::baud, 50, 4000000},
    {"--unit", &Options::unit, 1, 247},
    {"--registers", &Options::registers, 64, 65536},
    {"--rate", &Options::rateMs, 10, 60000},
    {"--alarm-period", &Options::alarmPeriodS, 1, 3600},
    {"--reply-unit", &Options::replyUnit, 0, 255},
    {"--noise", &Options::noise, 0, 255},
};

const char *const kTextOptions[] = {"--tcp", "--link", "--holes", "--exception"};

}  // namespace

// Digits only: a sign, blanks or a suffix are a mistake, not a number.
bool parseInt(const std::string &text, int min, int max, int &out, std::string &problem)
{
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) {
        problem = "'" + text + "' is not a number";
        return false;
    }
    long v = std::strtol(text.c_str(), nullptr, 10);
    if (v < min || v > max) {
        problem = text + " is out of range (" + std::to_string(min) + ".." + std::to_string(max) + ")";
        return false;
    }
    out = static_cast<int>(v);
    return true;
}

namespace {

bool parseEndpoint(const std::string &text, Options &out, std::string &problem)
{
    const size_t colon = text.rfind(':');
    std::string port = text;
    if (colon != std::string::npos) {
        out.address = text.substr(0, colon);
        port = text.substr(colon + 1);
        in_addr a{};
        if (inet_pton(AF_INET, out.address.c_str(), &a) != 1) {
            problem = "'" + out.address + "' is not an IPv4 address";
            return false;
        }
    }
    return parseInt(port, 1, 65535, out.port, problem);
}

// One option with its value (already split off "--name=value" or taken from
// the next argument); false with problem set when it is bad.
bool applyValue(const std::string &name, const std::string &value, Options &out, std::string &problem)
{
    if (name == "--tcp")
        return parseEndpoint(value, out, problem);
    if (name == "--link") {
        out.link = value;
        problem = "needs a path";
        return !value.empty();
    }
    if (name == "--holes")
        return out.faults.add(value, MODBUS_EXCEPTION_ILLEGAL_DATA_ADDRESS, problem);
    if (name == "--exception")
        return out.faults.addCoded(value, problem);
    for (const NumberOption &n : kNumbers)
        if (name == n.name)
            return parseInt(value, n.min, n.max, out.*(n.field), problem);
    return false;
}

bool takesValue(const std::string &name)
{
    for (const char *t : kTextOptions)
        if (name == t)
            return true;
    for (const NumberOption &n : kNumbers)
        if (name == n.name)
            return true;
    return false;
}

}  // namespace

ParseResult parseOptions(int argc, char **argv, Options &out, std::string &problem)
{
    bool tcp = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help")
            return ParseResult::Help;
        if (arg == "-v" || arg == "--verbose") {
            out.verbose = true;
            continue;
        }
        if (arg == "--rtu") {
            out.rtu = true;
            continue;
        }
        const size_t eq = arg.find('=');
        const std::string name = arg.substr(0, eq);
        if (!takesValue(name)) {
            problem = "unknown option '" + arg + "'";
            return ParseResult::Bad;
        }
        if (eq == std::string::npos && i + 1 >= argc) {
            problem = name + " needs a value";
            return ParseResult::Bad;
        }
        const std::string value = eq == std::string::npos ? argv[++i] : arg.substr(eq + 1);
        if (!applyValue(name, value, out, problem)) {
            problem = name + ": " + problem;
            return ParseResult::Bad;
        }
        tcp = tcp || name == "--tcp";
    }
    if (tcp && out.rtu) {
        problem = "--tcp and --rtu exclude each other";
        return ParseResult::Bad;
    }
    const char *rtuOnly = !out.link.empty() ? "--link" : out.noise > 0 ? "--noise" : nullptr;
    if (rtuOnly && !out.rtu) {
        problem = std::string(rtuOnly) + " needs --rtu";
        return ParseResult::Bad;
    }
    if (out.replyUnit >= 0 && out.rtu) {
        problem = "--reply-unit is for TCP only (an RTU master drops replies from another station)";
        return ParseResult::Bad;
    }
    return ParseResult::Run;
}

}  // namespace plcsim
