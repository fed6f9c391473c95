// The simulator's command line.
#pragma once

#include "faults.h"

#include <string>

namespace plcsim {

struct Options {
    bool rtu = false;
    std::string address = "127.0.0.1";
    int port = 5020;
    std::string link;
    int baud = 9600;
    int unit = 1;
    int registers = 10000;
    int rateMs = 1000;
    int alarmPeriodS = 10;
    bool verbose = false;
    FaultMap faults;
    int replyUnit = -1;  // TCP: the unit id every reply carries; -1 = the request's
    int noise = 0;       // RTU: garbage bytes sent ahead of every reply
};

enum class ParseResult { Run, Help, Bad };

// Fills out from argv; on Bad, problem names what is wrong in one line.
ParseResult parseOptions(int argc, char **argv, Options &out, std::string &problem);

// Digits only, within min..max; false with problem set otherwise.
bool parseInt(const std::string &text, int min, int max, int &out, std::string &problem);

extern const char kUsageLine[];
extern const char kHelpText[];

}  // namespace plcsim
