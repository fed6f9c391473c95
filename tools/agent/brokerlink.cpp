#include "brokerlink.h"

#include "agentlog.h"

#include <mosquitto.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace agent {
namespace {

BrokerLink *self(void *obj) { return static_cast<BrokerLink *>(obj); }

void connectCallback(mosquitto *, void *obj, int rc) { self(obj)->onConnect(rc); }
void messageCallback(mosquitto *, void *obj, const mosquitto_message *m) { self(obj)->onMessage(m); }
void subscribeCallback(mosquitto *, void *obj, int, int count, const int *granted)
{
    if (count > 0)
        self(obj)->onSubscribe(granted[0]);
}

const char *connackText(int code)
{
    switch (code) {
    case 1: return "unacceptable protocol version";
    case 2: return "identifier rejected";
    case 3: return "server unavailable";
    case 4: return "bad user name or password";
    case 5: return "not authorised";
    default: return "refused";
    }
}

const int kHandshakePasses = 50;
const auto kConnectTimeout = std::chrono::seconds(30);

// Publishing failed because the connection is gone; the message can wait.
bool connectionGone(int rc)
{
    return rc == MOSQ_ERR_NO_CONN || rc == MOSQ_ERR_CONN_LOST || rc == MOSQ_ERR_ERRNO;
}

const char *orNull(const QByteArray &text) { return text.isEmpty() ? nullptr : text.constData(); }

}  // namespace

void MosquittoDeleter::operator()(mosquitto *m) const
{
    mosquitto_destroy(m);
}

BrokerLink::BrokerLink(const BrokerSettings &settings, const QByteArray &subscription, size_t queueLimit,
                       qint64 queueBytes, Handlers handlers)
    : m_settings(settings), m_subscription(subscription),
      m_name(QString("%1:%2").arg(settings.host).arg(settings.port).toUtf8()), m_handlers(std::move(handlers)),
      m_queue(queueLimit, queueBytes)
{
}

BrokerLink::~BrokerLink()
{
    stop();
    if (m_mosq) {
        m_mosq.reset();
        mosquitto_lib_cleanup();
    }
}

bool BrokerLink::start()
{
    mosquitto_lib_init();
    m_mosq.reset(mosquitto_new(m_settings.clientId.toUtf8().constData(), true, this));
    if (!m_mosq) {
        AGENT_ERROR("cannot create the MQTT client: %s", strerror(errno));
        mosquitto_lib_cleanup();
        return false;
    }
    mosquitto *m = m_mosq.get();
    // Our thread runs the network loop while others publish.
    mosquitto_threaded_set(m, true);
    mosquitto_int_option(m, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    // The gateway waits for the platform's answer to each alarm event, so
    // latency, not packing, decides how fast a backlog drains.
    mosquitto_int_option(m, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(m, connectCallback);
    mosquitto_message_callback_set(m, messageCallback);
    mosquitto_subscribe_callback_set(m, subscribeCallback);
    m_thread = std::thread([this] { run(); });
    return true;
}

void BrokerLink::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (!m_thread.joinable())
        return;
    // Wakes the network loop at once instead of at its next second.
    mosquitto_disconnect(m_mosq.get());
    m_thread.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    reportDrops();
    if (!m_queue.empty())
        AGENT_WARN("broker %s: %zu kept messages never published", m_name.constData(), m_queue.size());
}

bool BrokerLink::connected()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connected;
}

bool BrokerLink::configure(QByteArray *why)
{
    mosquitto *m = m_mosq.get();
    const BrokerSettings &s = m_settings;
    const QByteArray user = s.username.toUtf8(), password = s.password.toUtf8();
    if (!user.isEmpty() && mosquitto_username_pw_set(m, user.constData(), orNull(password)) != MOSQ_ERR_SUCCESS) {
        *why = "user name rejected by libmosquitto";
        return false;
    }
    if (!s.tls())
        return true;
    const int rc = mosquitto_tls_set(m, orNull(s.cafile.toLocal8Bit()), orNull(s.capath.toLocal8Bit()),
                                     orNull(s.certfile.toLocal8Bit()), orNull(s.keyfile.toLocal8Bit()), nullptr);
    if (rc != MOSQ_ERR_SUCCESS) {
        *why = "TLS set-up failed (" + failureText(rc, errno) + "; are cafile/capath/certfile/keyfile readable?)";
        return false;
    }
    mosquitto_tls_insecure_set(m, s.tlsInsecure);
    return true;
}

QByteArray BrokerLink::failureText(int rc, int err) const
{
    QByteArray text = rc == MOSQ_ERR_ERRNO ? QByteArray(strerror(err)) : QByteArray(mosquitto_strerror(rc));
    while (text.endsWith('.'))
        text.chop(1);
    return text;
}

void BrokerLink::run()
{
    int delay = 0;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping)
                break;
            m_refusal = 0;
        }
        QByteArray why;
        bool wasConnected = false;
        if (!m_configured)
            m_configured = configure(&why);
        if (m_configured)
            wasConnected = serveConnection(&why);
        const int min = m_settings.reconnectMinS, max = m_settings.reconnectMaxS;
        delay = wasConnected || delay == 0 ? min : std::min(delay * 2, max);
        if (!waitBeforeRetry(delay, why))
            break;
    }
}

// Runs the network loop until the connection ends; *stalled when it was
// given up because the handshake went nowhere.
int BrokerLink::pump(bool *stalled)
{
    mosquitto *m = m_mosq.get();
    const auto begun = std::chrono::steady_clock::now();
    int rc;
    for (int passes = 1; (rc = mosquitto_loop(m, 1000, 1)) == MOSQ_ERR_SUCCESS && !stopping(); ++passes) {
        // libmosquitto takes some failed TLS handshakes (a refused connection
        // among them) for "try again" and would spin here. A handshake is a
        // few round trips: many passes or a long wait without a CONNACK mean
        // it failed.
        if (!connected() && (passes > kHandshakePasses || std::chrono::steady_clock::now() - begun > kConnectTimeout)) {
            *stalled = true;
            return rc;
        }
    }
    if (stopping() && rc == MOSQ_ERR_SUCCESS) {
        // Lets the DISCONNECT that stop() queued reach the broker.
        for (int i = 0; i < 5 && mosquitto_loop(m, 100, 1) == MOSQ_ERR_SUCCESS; ++i) {
        }
    }
    return rc;
}

// Connects and serves the connection until it ends; true when it had been
// accepted. *why describes how it ended.
bool BrokerLink::serveConnection(QByteArray *why)
{
    errno = 0;
    int rc = mosquitto_connect_async(m_mosq.get(), m_settings.host.toUtf8().constData(), m_settings.port,
                                     m_settings.keepalive);
    if (rc != MOSQ_ERR_SUCCESS) {
        *why = "connect failed (" + failureText(rc, errno) + ")";
        return false;
    }
    bool stalled = false;
    rc = pump(&stalled);
    const int err = errno;
    int refusal;
    bool was;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        refusal = m_refusal;
        was = m_connected;
        m_connected = false;
    }
    if (was && m_handlers.state)
        m_handlers.state(false);
    if (refusal)
        *why = QByteArray("refused: ") + connackText(refusal) + " (CONNACK " + QByteArray::number(refusal) + ")";
    else if (was)
        *why = "connection lost (" + failureText(rc, err) + ")";
    else if (stalled)
        *why = "connect failed (the handshake did not complete)";
    else
        *why = "connect failed (" + failureText(rc, err) + ")";
    return was;
}

bool BrokerLink::stopping()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stopping;
}

bool BrokerLink::waitBeforeRetry(int seconds, const QByteArray &why)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_stopping)
        return false;
    AGENT_WARN("broker %s %s, retrying in %d s", m_name.constData(), why.constData(), seconds);
    m_wake.wait_for(lock, std::chrono::seconds(seconds), [this] { return m_stopping; });
    return !m_stopping;
}

void BrokerLink::onConnect(int rc)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (rc != 0) {
        m_refusal = rc;
        return;
    }
    m_connected = true;
    AGENT_INFO("broker %s connected%s", m_name.constData(), m_settings.tls() ? " (TLS)" : "");
    const bool subscribing = mosquitto_subscribe(m_mosq.get(), nullptr, m_subscription.constData(), 1) == MOSQ_ERR_SUCCESS;
    if (!subscribing)
        AGENT_ERROR("broker %s: cannot subscribe to %s", m_name.constData(), m_subscription.constData());
    flushQueue();
    lock.unlock();
    // Up is said once the subscription stands (onSubscribe): a command the
    // platform sends on hearing it must not fall between CONNACK and SUBACK.
    if (!subscribing && m_handlers.state)
        m_handlers.state(true);
}

void BrokerLink::onMessage(const mosquitto_message *message)
{
    if (!m_handlers.message || !message->topic)
        return;
    m_handlers.message(QByteArray(message->topic),
                       QByteArray(static_cast<const char *>(message->payload), message->payloadlen));
}

void BrokerLink::onSubscribe(int grantedQos)
{
    // 0x80: the broker refused the filter, e.g. by its ACL.
    if (grantedQos == 0x80)
        AGENT_ERROR("broker %s refused the subscription to %s; no cloud commands will arrive", m_name.constData(),
                    m_subscription.constData());
    // Uploads still go when the filter was refused: the link is up.
    if (m_handlers.state)
        m_handlers.state(true);
}

int BrokerLink::publishNow(const Pending &p)
{
    return mosquitto_publish(m_mosq.get(), nullptr, p.topic.constData(), p.payload.size(), p.payload.constData(),
                             p.qos, false);
}

void BrokerLink::publish(const QByteArray &topic, const QByteArray &payload, int qos)
{
    if (mosquitto_pub_topic_check(topic.constData()) != MOSQ_ERR_SUCCESS) {
        AGENT_WARN("dropped message with invalid topic '%s'", preview(topic).constData());
        return;
    }
    Pending p{topic, payload, qos};
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_connected && m_queue.empty()) {
        const int rc = publishNow(p);
        if (rc == MOSQ_ERR_SUCCESS)
            return;
        if (!connectionGone(rc)) {
            AGENT_WARN("broker %s: cannot publish on %s (%s), dropped", m_name.constData(), topic.constData(),
                       failureText(rc, errno).constData());
            return;
        }
    }
    if (m_queue.push(std::move(p)))
        AGENT_WARN("broker %s away and %zu messages (%lld bytes) kept: dropping the oldest from now on, "
                   "real-time first",
                   m_name.constData(), m_queue.size(), static_cast<long long>(m_queue.bytes()));
}

// Called with m_mutex held.
void BrokerLink::flushQueue()
{
    size_t sent = 0;
    while (m_connected && !m_queue.empty()) {
        const int rc = publishNow(m_queue.front());
        if (connectionGone(rc))
            break;
        if (rc != MOSQ_ERR_SUCCESS)
            AGENT_WARN("broker %s: cannot publish on %s (%s), dropped", m_name.constData(),
                       m_queue.front().topic.constData(), failureText(rc, errno).constData());
        else
            ++sent;
        m_queue.pop();
    }
    if (sent)
        AGENT_INFO("broker %s: published %zu kept messages", m_name.constData(), sent);
    reportDrops();
}

// Called with m_mutex held. One line per outage, however long it lasted.
void BrokerLink::reportDrops()
{
    const PublishQueue::Drops d = m_queue.takeDrops();
    if (d.total())
        AGENT_WARN("broker %s: %lu messages dropped while it was away (%lu real-time, %lu others)",
                   m_name.constData(), d.total(), d.realtime, d.others);
}

}  // namespace agent
