#include "rtuserver.h"

#include "options.h"
#include "responder.h"

#include <cerrno>
#include <cstdio>

namespace plcsim {

std::unique_ptr<RtuServer> RtuServer::open(const Options &opts, Responder &responder)
{
    std::unique_ptr<RtuServer> s(new RtuServer(responder));
    std::string error;
    if (!s->m_pty.open(error)) {
        std::fprintf(stderr, "plcsim: cannot create a pseudo-terminal: %s\n", error.c_str());
        return nullptr;
    }
    if (!opts.link.empty() && !s->m_link.create(opts.link, s->m_pty.devicePath(), error)) {
        std::fprintf(stderr, "plcsim: cannot link %s: %s\n", opts.link.c_str(), error.c_str());
        return nullptr;
    }
    s->m_linkPath = opts.link;
    s->m_baud = opts.baud;
    s->m_unit = opts.unit;
    if (!s->makeContext()) {
        std::fprintf(stderr, "plcsim: libmodbus: %s\n", modbus_strerror(errno));
        return nullptr;
    }
    return s;
}

bool RtuServer::makeContext()
{
    // The device name only labels the context: the line is the pty's master
    // side, which no path opens.
    ModbusCtx ctx(modbus_new_rtu(m_pty.devicePath().c_str(), m_baud, 'N', 8, 1));
    if (!ctx)
        return false;
    modbus_set_slave(ctx.get(), m_unit);
    modbus_set_socket(ctx.get(), m_pty.masterFd());
    modbus_set_indication_timeout(ctx.get(), 0, 500000);
    m_ctx = std::move(ctx);
    return true;
}

std::string RtuServer::describe() const
{
    std::string text = "Modbus RTU on " + m_pty.devicePath();
    if (!m_linkPath.empty())
        text += " (link " + m_linkPath + ")";
    return text;
}

void RtuServer::addFds(std::vector<pollfd> &fds)
{
    fds.push_back({m_pty.masterFd(), POLLIN, 0});
}

void RtuServer::serve(const std::vector<pollfd> &fds)
{
    if (fds.empty() || fds[0].revents == 0)
        return;
    uint8_t req[MODBUS_RTU_MAX_ADU_LENGTH];
    const int n = modbus_receive(m_ctx.get(), req);
    if (n == 0) {
        // A request for another unit: libmodbus then takes the next frame
        // for that unit's reply, as on a shared bus. On this point-to-point
        // line no such reply comes, so the master's next request would be
        // swallowed; a fresh context forgets the expectation.
        if (m_responder.verbose())
            std::printf("plcsim: ignored a request for another unit\n");
        if (!makeContext())
            std::fprintf(stderr, "plcsim: libmodbus: %s\n", modbus_strerror(errno));
    } else if (n < 0) {
        std::fprintf(stderr, "plcsim: dropped a bad frame (%s)\n", modbus_strerror(errno));
        modbus_flush(m_ctx.get());
    } else if (!m_responder.answer(m_ctx.get(), req, n)) {
        std::fprintf(stderr, "plcsim: reply failed (%s)\n", modbus_strerror(errno));
    }
}

}  // namespace plcsim
