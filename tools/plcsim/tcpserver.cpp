#include "tcpserver.h"

#include "options.h"
#include "responder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace plcsim {

namespace {

// Far below the descriptor limit, so accept() never fails for want of one
// and leaves the listener readable for ever.
const size_t kMaxMasters = 128;

FdHandle listenOn(const Options &opts, std::string &error)
{
    FdHandle fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int one = 1;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(opts.port));
    inet_pton(AF_INET, opts.address.c_str(), &a.sin_addr);
    // SO_REUSEADDR lets a restarted simulator take its port back at once; a
    // port some other program listens on is still refused.
    if (!fd.valid() || ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        ::bind(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || ::listen(fd.get(), 16) != 0) {
        error = std::strerror(errno);
        return FdHandle();
    }
    return fd;
}

}  // namespace

std::unique_ptr<TcpServer> TcpServer::open(const Options &opts, Responder &responder)
{
    const std::string endpoint = opts.address + ":" + std::to_string(opts.port);
    std::string error;
    FdHandle listener = listenOn(opts, error);
    if (!listener.valid()) {
        std::fprintf(stderr, "plcsim: cannot listen on %s: %s\n", endpoint.c_str(), error.c_str());
        return nullptr;
    }
    ModbusCtx ctx(modbus_new_tcp(opts.address.c_str(), opts.port));
    if (!ctx) {
        std::fprintf(stderr, "plcsim: libmodbus: %s\n", modbus_strerror(errno));
        return nullptr;
    }
    // Reads start only once poll() saw data; these bound a master that sends
    // half a frame.
    modbus_set_indication_timeout(ctx.get(), 0, 500000);
    modbus_set_byte_timeout(ctx.get(), 0, 500000);
    return std::unique_ptr<TcpServer>(new TcpServer(std::move(listener), std::move(ctx), endpoint, responder));
}

TcpServer::TcpServer(FdHandle listener, ModbusCtx ctx, std::string endpoint, Responder &responder)
    : m_listener(std::move(listener)), m_ctx(std::move(ctx)), m_endpoint(std::move(endpoint)), m_responder(responder)
{
}

std::string TcpServer::describe() const
{
    return "Modbus TCP on " + m_endpoint;
}

void TcpServer::addFds(std::vector<pollfd> &fds)
{
    fds.push_back({m_listener.get(), POLLIN, 0});
    for (const FdHandle &m : m_masters)
        fds.push_back({m.get(), POLLIN, 0});
}

void TcpServer::serve(const std::vector<pollfd> &fds)
{
    // fds holds the listener, then the masters in the order addFds() saw them.
    for (size_t i = 0; i < m_masters.size() && i + 1 < fds.size(); ++i)
        if (fds[i + 1].revents != 0 && !serveMaster(m_masters[i].get()))
            m_masters[i].reset();
    m_masters.erase(std::remove_if(m_masters.begin(), m_masters.end(), [](const FdHandle &m) { return !m.valid(); }),
                    m_masters.end());
    if (!fds.empty() && fds[0].revents != 0)
        acceptMaster();
}

void TcpServer::acceptMaster()
{
    FdHandle fd(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd.valid())
        return;
    if (m_masters.size() >= kMaxMasters) {
        std::fprintf(stderr, "plcsim: refused a master: %zu already connected\n", m_masters.size());
        return;
    }
    const int one = 1;
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (m_responder.verbose())
        std::printf("plcsim: master %d connected\n", fd.get());
    m_masters.push_back(std::move(fd));
}

// One request from a master; false when its connection should be closed.
bool TcpServer::serveMaster(int fd)
{
    uint8_t req[MODBUS_TCP_MAX_ADU_LENGTH];
    modbus_set_socket(m_ctx.get(), fd);
    const int n = modbus_receive(m_ctx.get(), req);
    bool keep = n >= 0;
    if (n < 0 && errno != ECONNRESET)
        std::fprintf(stderr, "plcsim: master %d: bad or broken request (%s), disconnecting\n", fd,
                     modbus_strerror(errno));
    else if (n < 0 && m_responder.verbose())
        std::printf("plcsim: master %d disconnected\n", fd);
    if (n > 0 && !m_responder.answer(m_ctx.get(), req, n)) {
        std::fprintf(stderr, "plcsim: master %d: reply failed (%s), disconnecting\n", fd, modbus_strerror(errno));
        keep = false;
    }
    modbus_set_socket(m_ctx.get(), -1);
    return keep;
}

}  // namespace plcsim
