// The agent's end of the gateway's nanomsg PAIR socket. It is bound once and
// kept for the life of the agent, so a restarted gateway finds it again.
// One thread polls the socket and a wake-up: it hands every message from the
// gateway to the receiver and delivers queued messages whenever the gateway
// can take them. Messages wait in the queue (bounded, oldest dropped) while no
// gateway is connected, so cloud commands outlive a gateway restart.
#pragma once

#include "boundedqueue.h"
#include "eventfd.h"

#include <QByteArray>

#include <functional>
#include <mutex>
#include <thread>

namespace agent {

// Owns one nanomsg socket.
class NnSocket {
public:
    NnSocket() = default;
    ~NnSocket() { reset(); }
    NnSocket(const NnSocket &) = delete;
    NnSocket &operator=(const NnSocket &) = delete;
    int get() const { return m_fd; }
    void reset(int fd = -1);

private:
    int m_fd = -1;
};

class GatewayLink {
public:
    using Receiver = std::function<void(const QByteArray &)>;

    // receiver runs on the link's thread and must not block.
    GatewayLink(size_t queueLimit, Receiver receiver);
    ~GatewayLink();
    GatewayLink(const GatewayLink &) = delete;
    GatewayLink &operator=(const GatewayLink &) = delete;

    // Binds url and starts the thread; false (logged) when that failed.
    bool open(const QByteArray &url);
    // Queues a message for the gateway; never blocks.
    void send(const QByteArray &message);
    void stop();

private:
    bool socketOption(int level, int option, int value, const char *name);
    int socketFd(int option);
    void run(int rcvFd, int sndFd);
    bool receiveAll();
    void sendQueued();

    Receiver m_receiver;
    NnSocket m_socket;
    EventFd m_wake;
    std::mutex m_mutex;
    BoundedQueue<QByteArray> m_queue;
    bool m_stopping = false;
    std::thread m_thread;
};

}  // namespace agent
