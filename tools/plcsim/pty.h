// A pseudo-terminal standing in for the PLC's serial port: masters open the
// slave device, the simulator talks through the master side.
#pragma once

#include "device_comm/serialport/fdhandle.h"

#include <string>

namespace plcsim {

class Pty {
public:
    // False with error set when no pty could be made.
    bool open(std::string &error);
    int masterFd() const { return m_master.get(); }
    const std::string &devicePath() const { return m_path; }

private:
    FdHandle m_master;
    // Held open so that the line stays raw and the master side never sees a
    // hang-up while no one else has the device open.
    FdHandle m_slave;
    std::string m_path;
};

// A symlink to the device, so that a gateway finds it under a fixed name;
// removed again when it goes, unless someone re-pointed it meanwhile.
class DeviceLink {
public:
    DeviceLink() = default;
    ~DeviceLink();
    DeviceLink(const DeviceLink &) = delete;
    DeviceLink &operator=(const DeviceLink &) = delete;

    // Replaces an existing symlink at path, never any other kind of file;
    // creates missing folders.
    bool create(const std::string &path, const std::string &target, std::string &error);

private:
    std::string m_path;
    std::string m_target;
};

}  // namespace plcsim
