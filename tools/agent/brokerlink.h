// The agent's MQTT connection (libmosquitto, MQTT 3.1.1, clean session) on a
// thread of its own. The thread connects, serves the connection, and after
// every failure or loss waits with a back-off (reconnect_min_s doubling up to
// reconnect_max_s, reset by a successful connection) before it tries again,
// whatever the failure: refused credentials, TLS, name lookup, network.
// Messages published while disconnected wait in a bounded queue (see
// PublishQueue for what goes when it is full) and go out in order once
// connected.
#pragma once

#include "agentconfig.h"
#include "publishqueue.h"

#include <QByteArray>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

struct mosquitto;
struct mosquitto_message;

namespace agent {

struct MosquittoDeleter {
    void operator()(mosquitto *m) const;
};

class BrokerLink {
public:
    struct Handlers {
        std::function<void(bool connected)> state;
        std::function<void(const QByteArray &topic, const QByteArray &payload)> message;
    };

    // subscription: the filter subscribed (QoS 1) on every connect; the
    // queue keeps at most queueLimit messages and queueBytes bytes.
    BrokerLink(const BrokerSettings &settings, const QByteArray &subscription, size_t queueLimit, qint64 queueBytes,
               Handlers handlers);
    ~BrokerLink();
    BrokerLink(const BrokerLink &) = delete;
    BrokerLink &operator=(const BrokerLink &) = delete;

    // False (logged) when libmosquitto could not be set up at all.
    bool start();
    void stop();
    // Never blocks; queues while disconnected. Bad topics are logged and dropped.
    void publish(const QByteArray &topic, const QByteArray &payload, int qos);
    bool connected();

    // libmosquitto's callbacks.
    void onConnect(int rc);
    void onMessage(const mosquitto_message *message);
    void onSubscribe(int grantedQos);

private:
    bool configure(QByteArray *why);
    void run();
    bool serveConnection(QByteArray *why);
    int pump(bool *stalled);
    bool stopping();
    // Logs why and waits; false when the link is stopping.
    bool waitBeforeRetry(int seconds, const QByteArray &why);
    QByteArray failureText(int rc, int err) const;
    int publishNow(const Pending &p);
    void flushQueue();
    void reportDrops();

    BrokerSettings m_settings;
    QByteArray m_subscription;
    QByteArray m_name;  // "host:port" for log lines
    Handlers m_handlers;
    std::unique_ptr<mosquitto, MosquittoDeleter> m_mosq;
    bool m_configured = false;
    std::thread m_thread;

    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stopping = false;
    bool m_connected = false;
    int m_refusal = 0;  // CONNACK code of the last refusal
    PublishQueue m_queue;
};

}  // namespace agent
