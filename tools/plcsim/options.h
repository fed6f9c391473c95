// The simulator's command line.
#pragma once

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
};

enum class ParseResult { Run, Help, Bad };

// Fills out from argv; on Bad, problem names what is wrong in one line.
ParseResult parseOptions(int argc, char **argv, Options &out, std::string &problem);

extern const char kUsageLine[];
extern const char kHelpText[];

}  // namespace plcsim
