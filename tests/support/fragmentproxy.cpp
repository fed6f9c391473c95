#include "fragmentproxy.h"

#include "device_comm/serialport/fdhandle.h"
#include "fdend.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <list>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace lumbra::test {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const int kConnectTimeoutMs = 1000;
const size_t kChunk = 4096;

// Listening on a free port of loopback; the port, -1 on failure.
int listenOn(FdHandle &fd)
{
    fd = FdHandle(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int port = fd.valid() ? bindLoopback(fd.get()) : -1;
    return port > 0 && ::listen(fd.get(), 16) == 0 ? port : -1;
}

// A non-blocking connection, given up after kConnectTimeoutMs.
FdHandle connectTo(int port)
{
    const sockaddr_in target = loopback(port);
    FdHandle fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid())
        return fd;
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&target), sizeof target) != 0) {
        pollfd p{fd.get(), POLLOUT, 0};
        int error = 0;
        socklen_t len = sizeof error;
        if (errno != EINPROGRESS || ::poll(&p, 1, kConnectTimeoutMs) != 1 ||
            ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &len) != 0 || error != 0)
            return FdHandle();
    }
    return fd;
}

void noDelay(int fd)
{
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

struct Piece {
    Clock::time_point due;
    std::string bytes;
};

// Bytes on their way to one side, each piece not before its time.
struct Outbox {
    std::deque<Piece> pieces;

    Clock::time_point after(Clock::time_point now) const
    {
        return pieces.empty() ? now : std::max(now, pieces.back().due);
    }
    bool due(Clock::time_point now) const { return !pieces.empty() && pieces.front().due <= now; }
};

struct Connection {
    FdHandle client;
    FdHandle device;
    Outbox toClient;
    Outbox toDevice;
    std::string held;  // a chunk kept back in StaleTail mode
    uint64_t deviceChunks = 0;
    bool deviceClosed = false;
    bool broken = false;
};

}  // namespace

struct FragmentProxy::Impl {
    int target = 0;
    FdHandle listener;
    FdHandle wake{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    int port = -1;
    std::atomic<bool> stop{false};
    std::atomic<bool> dead{false};
    mutable std::mutex mutex;  // shape and counters
    Shape shape;
    Counters counters;
    std::minstd_rand random{20};
    std::list<Connection> connections;
    std::thread thread;

    void run();
    void accept();
    void pump(Connection &c, const std::vector<pollfd> &fds, size_t at, Clock::time_point now);
    void fromDevice(Connection &c, std::string chunk, Clock::time_point now);
    void cut(Outbox &out, const std::string &bytes, const Shape &s, Clock::time_point now);
    bool flush(Outbox &out, int fd, bool toClient, Clock::time_point now);
    int waitMs(Clock::time_point now) const;
    void fillFds(std::vector<pollfd> &fds, Clock::time_point now) const;
    void count(bool toClient)
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++(toClient ? counters.toClientChunks : counters.toDeviceChunks);
    }
};

void FragmentProxy::Impl::accept()
{
    FdHandle client(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!client.valid())
        return;
    FdHandle device = connectTo(target);
    if (!device.valid())
        return;  // the client sees the connection close, as behind a converter whose device is gone
    noDelay(client.get());
    noDelay(device.get());
    connections.emplace_back();
    connections.back().client = std::move(client);
    connections.back().device = std::move(device);
}

// Queues bytes for the client in the shape of the moment.
void FragmentProxy::Impl::cut(Outbox &out, const std::string &bytes, const Shape &s, Clock::time_point now)
{
    Clock::time_point at = out.after(now);
    const size_t size = bytes.size();
    if (s.mode == Mode::Bytewise) {
        for (size_t i = 0; i < size; ++i, at += milliseconds(s.bytePauseMs))
            out.pieces.push_back({at, bytes.substr(i, 1)});
        return;
    }
    if (s.mode != Mode::Split || size < 2) {
        out.pieces.push_back({at, bytes});
        return;
    }
    size_t first = s.splitAt > 0 ? static_cast<size_t>(s.splitAt) : 1 + random() % (size - 1);
    first = std::min(first, size - 1);
    out.pieces.push_back({at, bytes.substr(0, first)});
    out.pieces.push_back({at + milliseconds(s.splitPauseMs), bytes.substr(first)});
}

void FragmentProxy::Impl::fromDevice(Connection &c, std::string chunk, Clock::time_point now)
{
    if (dead)
        return;
    const Shape s = [this] {
        std::lock_guard<std::mutex> lock(mutex);
        return shape;
    }();
    ++c.deviceChunks;
    if (s.mode == Mode::StaleTail && s.staleEvery > 0 && c.deviceChunks % s.staleEvery == 0) {
        c.held += chunk;
        return;
    }
    cut(c.toClient, c.held + chunk, s, now);
    c.held.clear();
}

// Sends what is due; false when the side is gone.
bool FragmentProxy::Impl::flush(Outbox &out, int fd, bool toClient, Clock::time_point now)
{
    while (out.due(now)) {
        std::string &bytes = out.pieces.front().bytes;
        const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0)
            return errno == EAGAIN || errno == EINTR;
        count(toClient);
        if (static_cast<size_t>(n) < bytes.size()) {
            bytes.erase(0, static_cast<size_t>(n));
            return true;  // the rest when the side takes more
        }
        out.pieces.pop_front();
    }
    return true;
}

void FragmentProxy::Impl::pump(Connection &c, const std::vector<pollfd> &fds, size_t at, Clock::time_point now)
{
    char buf[kChunk];
    const short readable = POLLIN | POLLHUP | POLLERR;
    if (fds[at].revents & readable) {
        const ssize_t n = ::recv(c.client.get(), buf, sizeof buf, 0);
        if (n > 0)
            c.toDevice.pieces.push_back({now, std::string(buf, static_cast<size_t>(n))});
        else if (n == 0 || (errno != EAGAIN && errno != EINTR))
            c.broken = true;  // the master left: nothing more to carry either way
    }
    if (!c.deviceClosed && (fds[at + 1].revents & readable)) {
        const ssize_t n = ::recv(c.device.get(), buf, sizeof buf, 0);
        if (n > 0)
            fromDevice(c, std::string(buf, static_cast<size_t>(n)), now);
        else if (n == 0 || (errno != EAGAIN && errno != EINTR))
            c.deviceClosed = true;  // what is under way still reaches the client
    }
}

// Until the next piece falls due; a piece already due waits for POLLOUT instead.
int FragmentProxy::Impl::waitMs(Clock::time_point now) const
{
    Clock::time_point next = Clock::time_point::max();
    for (const Connection &c : connections)
        for (const Outbox *o : {&c.toClient, &c.toDevice})
            if (!o->pieces.empty() && !o->due(now))
                next = std::min(next, o->pieces.front().due);
    if (next == Clock::time_point::max())
        return -1;
    return static_cast<int>(std::chrono::duration_cast<milliseconds>(next - now).count() + 1);
}

void FragmentProxy::Impl::fillFds(std::vector<pollfd> &fds, Clock::time_point now) const
{
    fds.clear();
    fds.push_back({wake.get(), POLLIN, 0});
    fds.push_back({listener.get(), POLLIN, 0});
    for (const Connection &c : connections) {
        fds.push_back({c.client.get(), static_cast<short>(POLLIN | (c.toClient.due(now) ? POLLOUT : 0)), 0});
        // A closed device side would report a hang-up on every wait.
        fds.push_back({c.deviceClosed ? -1 : c.device.get(),
                       static_cast<short>(POLLIN | (c.toDevice.due(now) ? POLLOUT : 0)), 0});
    }
}

void FragmentProxy::Impl::run()
{
    std::vector<pollfd> fds;
    while (!stop) {
        const Clock::time_point before = Clock::now();
        fillFds(fds, before);
        if (::poll(fds.data(), fds.size(), waitMs(before)) < 0 && errno != EINTR)
            break;
        const Clock::time_point now = Clock::now();
        size_t at = 2;
        for (Connection &c : connections) {
            pump(c, fds, at, now);
            at += 2;
            c.broken = c.broken || !flush(c.toDevice, c.device.get(), false, now) ||
                       !flush(c.toClient, c.client.get(), true, now) ||
                       (c.deviceClosed && c.toClient.pieces.empty());
        }
        connections.remove_if([](const Connection &c) { return c.broken; });
        if (fds[1].revents != 0)
            accept();
    }
}

FragmentProxy::FragmentProxy(int targetPort) : m_impl(new Impl)
{
    m_impl->target = targetPort;
    m_impl->port = listenOn(m_impl->listener);
    if (m_impl->port < 0 || !m_impl->wake.valid())
        return;
    m_impl->thread = std::thread([impl = m_impl.get()] { impl->run(); });
}

FragmentProxy::~FragmentProxy()
{
    m_impl->stop = true;
    // Fails only at the counter's limit, when the eventfd is readable anyway.
    const uint64_t one = 1;
    const ssize_t woken = ::write(m_impl->wake.get(), &one, sizeof one);
    static_cast<void>(woken);
    if (m_impl->thread.joinable())
        m_impl->thread.join();
}

bool FragmentProxy::ok() const
{
    return m_impl->thread.joinable() && m_impl->port > 0;
}

int FragmentProxy::port() const
{
    return m_impl->port;
}

void FragmentProxy::setShape(const Shape &shape)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->shape = shape;
}

void FragmentProxy::setDeviceDead(bool dead)
{
    m_impl->dead = dead;
}

FragmentProxy::Counters FragmentProxy::counters() const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->counters;
}

}  // namespace lumbra::test
