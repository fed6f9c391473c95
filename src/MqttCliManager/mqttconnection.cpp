#include "mqttconnection.h"

#include "generalFunc/globals.h"

#include <QDateTime>

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "MqttCliManager/MqttClient.cpp"

namespace lumbra::forward {

namespace {

// libmosquitto takes some failed TLS handshakes for "try again" and would
// spin: an attempt without a CONNACK after this many loop passes, or this
// long, has failed.
const int kHandshakePasses = 400;
const qint64 kHandshakeMs = 30000;
const int kLoopMs = 100;
// How long a stop waits for acknowledgements still outstanding.
const qint64 kGoodbyeMs = 2000;
// A failure that repeats unchanged is logged again after this long.
const qint64 kRepeatLogMs = 600000;

MqttConnection *self(void *obj)
{
    return static_cast<MqttConnection *>(obj);
}

void connectCallback(mosquitto *, void *obj, int rc)
{
    self(obj)->onConnect(rc);
}

void publishCallback(mosquitto *, void *obj, int mid, int reason, const mosquitto_property *)
{
    self(obj)->onPublish(mid, reason);
}

void messageCallback(mosquitto *, void *obj, const mosquitto_message *message)
{
    if (message)
        self(obj)->onMessage(message);
}

void logCallback(mosquitto *, void *obj, int level, const char *text)
{
    if ((level & (MOSQ_LOG_ERR | MOSQ_LOG_WARNING)) && text)
        self(obj)->onLibraryError(text);
}

int keyPasswordCallback(char *buf, int size, int, void *userdata)
{
    // libmosquitto hands over its own handle here, not the user data.
    void *obj = userdata ? mosquitto_userdata(static_cast<mosquitto *>(userdata)) : nullptr;
    return obj ? self(obj)->keyPassword(buf, size) : 0;
}

const char *orNull(const QByteArray &text)
{
    return text.isEmpty() ? nullptr : text.constData();
}

QString failureText(int rc, int err)
{
    QString text = rc == MOSQ_ERR_ERRNO && err ? QString::fromLocal8Bit(strerror(err)) : mosquitto_strerror(rc);
    while (text.endsWith('.'))
        text.chop(1);
    return text;
}

}  // namespace

void MqttConnection::Deleter::operator()(mosquitto *m) const
{
    mosquitto_destroy(m);
}

MqttConnection::MqttConnection(const MqttClient::Settings &settings, LinkOwner *owner)
    : m_settings(settings), m_owner(owner), m_id(settings.clientId.toLocal8Bit())
{
}

MqttConnection::~MqttConnection()
{
    stop();
}

void MqttConnection::start()
{
    if (!m_thread.joinable())
        m_thread = std::thread([this] { run(); });
}

void MqttConnection::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void MqttConnection::run()
{
    int delay = 0;
    while (!m_stopping) {
        QString why;
        const bool wasUp = attempt(&why);
        if (m_stopping)
            break;
        if (m_refused) {
            zlog_error(g_zlog, "clientID:%s MOSQ_ERR_CONN_REFUSED: %s (%d), not retried until the server is reconfigured",
                       m_id.constData(), refusalText(m_refusal).toLocal8Bit().constData(), m_refusal.load());
            waitForStop();
            break;
        }
        delay = wasUp || delay == 0 ? kFirstRetryS : qMin(delay * 2, kLongestRetryS);
        if (!waitBeforeRetry(delay, why))
            break;
    }
}

MqttConnection::Handle MqttConnection::makeHandle(QString *why)
{
    const QByteArray id = m_settings.clientId.toUtf8();
    Handle h(mosquitto_new(orNull(id), true, this));
    if (!h) {
        zlog_error(g_zlog, "Error: Out of memory.");
        *why = "no client (out of memory)";
        return h;
    }
    mosquitto *m = h.get();
    // Our thread runs the network loop while others publish.
    mosquitto_threaded_set(m, true);
    mosquitto_int_option(m, MOSQ_OPT_PROTOCOL_VERSION, m_settings.mqttVersion);
    mosquitto_int_option(m, MOSQ_OPT_TCP_NODELAY, 1);
    // The client bounds what it has in flight itself; a second bound here
    // would only queue messages in memory where a lost connection resends them.
    mosquitto_max_inflight_messages_set(m, 0);
    mosquitto_connect_callback_set(m, connectCallback);
    mosquitto_publish_v5_callback_set(m, publishCallback);
    mosquitto_message_callback_set(m, messageCallback);
    mosquitto_log_callback_set(m, logCallback);
    if (m_settings.useAuthentication)
        mosquitto_username_pw_set(m, m_settings.userName.toUtf8().constData(),
                                  orNull(m_settings.password.toUtf8()));
    QByteArray willTopic, willPayload;
    if (m_owner->will(&willTopic, &willPayload))
        mosquitto_will_set(m, willTopic.constData(), willPayload.size(), willPayload.constData(), 0, false);
    if (m_settings.tls() && !setTls(m, why))
        return Handle();
    return h;
}

bool MqttConnection::setTls(mosquitto *m, QString *why)
{
    const MqttClient::Settings &s = m_settings;
    errno = 0;
    const int rc = mosquitto_tls_set(m, orNull(s.cafile.toLocal8Bit()), orNull(s.capath.toLocal8Bit()),
                                     orNull(s.certfile.toLocal8Bit()), orNull(s.keyfile.toLocal8Bit()),
                                     s.keyPassword.isEmpty() ? nullptr : keyPasswordCallback);
    if (rc != MOSQ_ERR_SUCCESS) {
        *why = QString("TLS set-up failed (%1; are cafile/capath/certfile/keyfile readable?)")
                   .arg(failureText(rc, errno));
        return false;
    }
    mosquitto_tls_insecure_set(m, s.tlsInsecure);
    return true;
}

int MqttConnection::keyPassword(char *buf, int size)
{
    const QByteArray pw = m_settings.keyPassword.toUtf8();
    if (size <= 0 || pw.size() >= size)
        return 0;
    memcpy(buf, pw.constData(), pw.size() + 1);
    return pw.size();
}

// True when the broker had accepted the connection.
bool MqttConnection::attempt(QString *why)
{
    m_refusal = 0;
    m_libraryError.clear();
    Handle h = makeHandle(why);
    if (!h)
        return false;
    mosquitto *m = h.get();
    errno = 0;
    int rc = mosquitto_connect_async(m, m_settings.host.toUtf8().constData(), m_settings.port, m_settings.keepAlive);
    if (rc != MOSQ_ERR_SUCCESS) {
        *why = QString("connect failed (%1)").arg(failureText(rc, errno)) + libraryDetail();
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_handle = std::move(h);
    }
    const qint64 begun = QDateTime::currentMSecsSinceEpoch();
    rc = serve(m);
    const int err = errno;
    const bool wasUp = m_up.exchange(false);
    // Before the handle goes: what was in flight on it goes back to the cache.
    m_owner->linkDown();
    Handle gone;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        gone = std::move(m_handle);
    }
    const int refusal = m_refusal;
    if (refusal) {
        m_refused = isAuthRefusal(refusal);
        *why = QString("refused: %1 (%2)").arg(refusalText(refusal)).arg(refusal);
    } else if (wasUp) {
        *why = QString("connection lost (%1)").arg(failureText(rc, err));
    } else if (rc == MOSQ_ERR_SUCCESS && !m_stopping) {
        *why = QString("connect failed (no answer to the handshake in %1 s)")
                   .arg((QDateTime::currentMSecsSinceEpoch() - begun) / 1000);
    } else {
        *why = QString("connect failed (%1)").arg(failureText(rc, err)) + libraryDetail();
    }
    return wasUp;
}

// Runs the network loop until the connection ends: its last result.
int MqttConnection::serve(mosquitto *m)
{
    const qint64 begun = QDateTime::currentMSecsSinceEpoch();
    int rc;
    for (int passes = 1; (rc = mosquitto_loop(m, kLoopMs, 1)) == MOSQ_ERR_SUCCESS; ++passes) {
        if (m_stopping) {
            sayGoodbye(m);
            break;
        }
        if (m_refusal) {
            mosquitto_disconnect(m);
            break;
        }
        if (!m_up && (passes > kHandshakePasses || QDateTime::currentMSecsSinceEpoch() - begun > kHandshakeMs))
            break;
    }
    return rc;
}

// Lets acknowledgements on their way arrive, and the DISCONNECT reach the
// broker, so that it does not publish the will.
void MqttConnection::sayGoodbye(mosquitto *m)
{
    const qint64 until = QDateTime::currentMSecsSinceEpoch() + kGoodbyeMs;
    while (m_up && !m_owner->settled() && QDateTime::currentMSecsSinceEpoch() < until &&
           mosquitto_loop(m, kLoopMs, 1) == MOSQ_ERR_SUCCESS) {
    }
    mosquitto_disconnect(m);
    for (int i = 0; i < 5 && mosquitto_loop(m, kLoopMs, 1) == MOSQ_ERR_SUCCESS; ++i) {
    }
}

bool MqttConnection::waitBeforeRetry(int seconds, const QString &why)
{
    logAttempt(why, seconds);
    std::unique_lock<std::mutex> lock(m_mutex);
    m_wake.wait_for(lock, std::chrono::seconds(seconds), [this] { return m_stopping.load(); });
    return !m_stopping;
}

void MqttConnection::waitForStop()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_wake.wait(lock, [this] { return m_stopping.load(); });
}

// A broker that stays away must not fill the log: once the wait has grown
// to its longest, the same failure is logged again every ten minutes only.
void MqttConnection::logAttempt(const QString &why, int seconds)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (why == m_lastWhy && seconds == m_lastWait && now - m_lastWhyAt < kRepeatLogMs) {
        ++m_heldAttempts;
        return;
    }
    const QString held = m_heldAttempts ? QString(" (%1 more attempts failed alike)").arg(m_heldAttempts) : QString();
    zlog_error(g_zlog, "clientID:%s %s:%d %s%s, retrying in %d s", m_id.constData(),
              m_settings.host.toLocal8Bit().constData(), m_settings.port, why.toLocal8Bit().constData(),
              held.toLocal8Bit().constData(), seconds);
    m_lastWhy = why;
    m_lastWait = seconds;
    m_lastWhyAt = now;
    m_heldAttempts = 0;
}

// 4 and 5 (MQTT 3.1.1), bad credentials, not authorised, banned and a bad
// authentication method (MQTT 5): asking again cannot help and would hammer
// the broker. Everything else (a busy or unavailable server among them) is
// worth another try.
bool MqttConnection::isAuthRefusal(int rc) const
{
    if (m_settings.mqttVersion == MQTT_PROTOCOL_V5)
        return rc == MQTT_RC_BAD_USERNAME_OR_PASSWORD || rc == MQTT_RC_NOT_AUTHORIZED || rc == MQTT_RC_BANNED ||
               rc == MQTT_RC_BAD_AUTHENTICATION_METHOD;
    return rc == CONNACK_REFUSED_BAD_USERNAME_PASSWORD || rc == CONNACK_REFUSED_NOT_AUTHORIZED;
}

QString MqttConnection::refusalText(int rc) const
{
    QString text = m_settings.mqttVersion == MQTT_PROTOCOL_V5 ? mosquitto_reason_string(rc) : mosquitto_connack_string(rc);
    while (text.endsWith('.'))
        text.chop(1);
    return text;
}

void MqttConnection::onConnect(int rc)
{
    zlog_info(g_zlog, "clientID:%s m_mosq:%p reason_code:%d", m_id.constData(), static_cast<void *>(m_handle.get()),
              rc);
    if (rc != 0) {
        m_refusal = rc;
        return;
    }
    m_up = true;
    m_lastWhy.clear();
    m_owner->linkUp();
}

// The library's own words say which check a TLS handshake failed.
QString MqttConnection::libraryDetail() const
{
    return m_libraryError.isEmpty() ? QString() : ": " + m_libraryError;
}

// Kept in order, the first few: a host name check that fails is said
// first, then the handshake that failed over it.
void MqttConnection::onLibraryError(const char *text)
{
    QString line = QString::fromLocal8Bit(text).trimmed();
    while (line.endsWith('.'))
        line.chop(1);
    if (m_libraryError.count("; ") < 2 && !m_libraryError.contains(line))
        m_libraryError += (m_libraryError.isEmpty() ? "" : "; ") + line;
}

void MqttConnection::onPublish(int mid, int reason)
{
    m_owner->published(mid, reason);
}

void MqttConnection::onMessage(const mosquitto_message *message)
{
    m_owner->received(message);
}

int MqttConnection::publish(const QByteArray &topic, const QByteArray &payload, int qos, int *mid)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle || !m_up)
        return MOSQ_ERR_NO_CONN;
    return mosquitto_publish(m_handle.get(), mid, topic.constData(), payload.size(), payload.constData(), qos, false);
}

int MqttConnection::subscribe(const QByteArray &filter)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle || !m_up)
        return MOSQ_ERR_NO_CONN;
    return mosquitto_subscribe(m_handle.get(), nullptr, filter.constData(), 0);
}

int MqttConnection::unsubscribe(const QByteArray &filter)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle || !m_up)
        return MOSQ_ERR_NO_CONN;
    return mosquitto_unsubscribe(m_handle.get(), nullptr, filter.constData());
}

}  // namespace lumbra::forward
