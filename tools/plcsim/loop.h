// The simulator's single thread: update the map when due, otherwise wait for
// masters until the next update.
#pragma once

namespace plcsim {

class PlcMap;
class StopSignals;
class Transport;

// Runs until a stop signal; the exit status (0 after a signal, 1 when
// waiting itself failed).
int runLoop(Transport &transport, PlcMap &map, int rateMs, const StopSignals &stop);

}  // namespace plcsim
