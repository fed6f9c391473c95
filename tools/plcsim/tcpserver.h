// Modbus TCP: a listening socket and any number of masters at once.
#pragma once

#include "device_comm/serialport/fdhandle.h"
#include "modbusctx.h"
#include "transport.h"

#include <memory>
#include <string>
#include <vector>

namespace plcsim {

class Responder;
struct Options;

class TcpServer : public Transport {
public:
    // Listens on the address and port of opts; null (after an error line on
    // stderr) when that fails, e.g. because the port is taken.
    static std::unique_ptr<TcpServer> open(const Options &opts, Responder &responder);

    std::string describe() const override;
    void addFds(std::vector<pollfd> &fds) override;
    void serve(const std::vector<pollfd> &fds) override;

private:
    TcpServer(FdHandle listener, ModbusCtx ctx, std::string endpoint, Responder &responder);
    void acceptMaster();
    bool serveMaster(int fd);

    FdHandle m_listener;
    ModbusCtx m_ctx;
    std::string m_endpoint;
    Responder &m_responder;
    std::vector<FdHandle> m_masters;
};

}  // namespace plcsim
