// A way masters reach the simulator (TCP sockets, a pseudo-terminal), served
// from the one loop that also updates the map, so the two never overlap.
#pragma once

#include <poll.h>

#include <string>
#include <vector>

namespace plcsim {

class Transport {
public:
    virtual ~Transport() = default;
    // "Modbus TCP on 127.0.0.1:5020", for the start line.
    virtual std::string describe() const = 0;
    // Appends the descriptors to wait on.
    virtual void addFds(std::vector<pollfd> &fds) = 0;
    // Handles whatever poll() reported on the descriptors added last.
    virtual void serve(const std::vector<pollfd> &fds) = 0;
};

}  // namespace plcsim
