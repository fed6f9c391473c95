#include "gatewaylink.h"

#include "agentlog.h"

#include <nanomsg/nn.h>
#include <nanomsg/pair.h>
#include <nanomsg/tcp.h>

#include <cerrno>
#include <cstring>
#include <poll.h>

namespace agent {

void NnSocket::reset(int fd)
{
    if (m_fd >= 0)
        nn_close(m_fd);
    m_fd = fd;
}

GatewayLink::GatewayLink(size_t queueLimit, Receiver receiver)
    : m_receiver(std::move(receiver)), m_queue(queueLimit)
{
}

GatewayLink::~GatewayLink()
{
    stop();
}

bool GatewayLink::socketOption(int level, int option, int value, const char *name)
{
    if (nn_setsockopt(m_socket.get(), level, option, &value, sizeof value) == 0)
        return true;
    AGENT_ERROR("gateway socket: cannot set %s: %s", name, nn_strerror(nn_errno()));
    return false;
}

int GatewayLink::socketFd(int option)
{
    int fd = -1;
    size_t size = sizeof fd;
    if (nn_getsockopt(m_socket.get(), NN_SOL_SOCKET, option, &fd, &size) < 0)
        return -1;
    return fd;
}

bool GatewayLink::open(const QByteArray &url)
{
    if (!m_wake.valid()) {
        AGENT_ERROR("gateway socket: no eventfd: %s", strerror(errno));
        return false;
    }
    m_socket.reset(nn_socket(AF_SP, NN_PAIR));
    if (m_socket.get() < 0) {
        AGENT_ERROR("gateway socket: %s", nn_strerror(nn_errno()));
        return false;
    }
    // History batches of a busy gateway outgrow nanomsg's 1 MB default, which
    // would cut the connection instead of delivering them.
    socketOption(NN_SOL_SOCKET, NN_RCVMAXSIZE, -1, "NN_RCVMAXSIZE");
    // Alarm events go one at a time, each waiting for its acknowledgement:
    // Nagle's delay would cost every one of them a delayed-ACK period.
    socketOption(NN_TCP, NN_TCP_NODELAY, 1, "NN_TCP_NODELAY");
    if (nn_bind(m_socket.get(), url.constData()) < 0) {
        AGENT_ERROR("gateway socket: cannot bind %s: %s", url.constData(), nn_strerror(nn_errno()));
        return false;
    }
    const int rcvFd = socketFd(NN_RCVFD), sndFd = socketFd(NN_SNDFD);
    if (rcvFd < 0 || sndFd < 0) {
        AGENT_ERROR("gateway socket: no pollable descriptors: %s", nn_strerror(nn_errno()));
        return false;
    }
    AGENT_INFO("gateway socket bound at %s", url.constData());
    m_thread = std::thread([this, rcvFd, sndFd] { run(rcvFd, sndFd); });
    return true;
}

void GatewayLink::send(const QByteArray &message)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_queue.push(message) && worthLogging(m_queue.dropped()))
            AGENT_WARN("gateway queue full (%zu messages): dropped the oldest, %lu dropped so far", m_queue.size(),
                       m_queue.dropped());
    }
    m_wake.notify();
}

void GatewayLink::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify();
    if (m_thread.joinable())
        m_thread.join();
    m_socket.reset();
}

void GatewayLink::run(int rcvFd, int sndFd)
{
    pollfd fds[3] = {{m_wake.fd(), POLLIN, 0}, {rcvFd, POLLIN, 0}, {sndFd, POLLIN, 0}};
    for (;;) {
        bool pending;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping)
                return;
            pending = !m_queue.empty();
        }
        // The send descriptor only matters while something waits to go out;
        // polled without need it would keep the thread awake.
        if (poll(fds, pending ? 3 : 2, -1) < 0) {
            if (errno != EINTR) {
                AGENT_ERROR("gateway socket: poll failed: %s", strerror(errno));
                return;
            }
            continue;
        }
        if (fds[0].revents)
            m_wake.drain();
        if (fds[1].revents && !receiveAll())
            return;
        if (pending && fds[2].revents)
            sendQueued();
    }
}

bool GatewayLink::receiveAll()
{
    for (;;) {
        char *buf = nullptr;
        const int len = nn_recv(m_socket.get(), &buf, NN_MSG, NN_DONTWAIT);
        if (len >= 0) {
            const QByteArray message(buf, len);
            nn_freemsg(buf);
            m_receiver(message);
            continue;
        }
        const int err = nn_errno();
        if (err == EAGAIN)
            return true;
        if (err == EINTR)
            continue;
        AGENT_ERROR("gateway socket: receive failed: %s", nn_strerror(err));
        return err != EBADF && err != ETERM;
    }
}

void GatewayLink::sendQueued()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    while (!m_queue.empty()) {
        const QByteArray &message = m_queue.front();
        if (nn_send(m_socket.get(), message.constData(), static_cast<size_t>(message.size()), NN_DONTWAIT) >= 0) {
            m_queue.pop();
            continue;
        }
        const int err = nn_errno();
        if (err == EAGAIN)
            return;  // no gateway right now; the send descriptor tells when
        if (err == EINTR)
            continue;
        AGENT_ERROR("gateway socket: send failed, message dropped: %s", nn_strerror(err));
        m_queue.pop();
    }
}

}  // namespace agent
