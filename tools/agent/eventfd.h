// A wake-up a thread can poll on beside its other descriptors.
#pragma once

#include "device_comm/serialport/fdhandle.h"

namespace agent {

class EventFd {
public:
    EventFd();
    bool valid() const { return m_fd.valid(); }
    int fd() const { return m_fd.get(); }
    void notify();
    // Clears the pending wake-ups.
    void drain();

private:
    FdHandle m_fd;
};

}  // namespace agent
