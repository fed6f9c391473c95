// Modbus RTU on a pseudo-terminal, optionally reachable through a symlink.
#pragma once

#include "modbusctx.h"
#include "pty.h"
#include "transport.h"

#include <memory>
#include <string>
#include <vector>

namespace plcsim {

class Responder;
struct Options;

class RtuServer : public Transport {
public:
    // Null (after an error line on stderr) when the pty or the link fails.
    static std::unique_ptr<RtuServer> open(const Options &opts, Responder &responder);

    std::string describe() const override;
    void addFds(std::vector<pollfd> &fds) override;
    void serve(const std::vector<pollfd> &fds) override;

private:
    explicit RtuServer(Responder &responder) : m_responder(responder) {}
    bool makeContext();

    Pty m_pty;
    DeviceLink m_link;
    std::string m_linkPath;
    int m_baud = 0;
    int m_unit = 1;
    ModbusCtx m_ctx;
    Responder &m_responder;
};

}  // namespace plcsim
