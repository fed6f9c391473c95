// The link of one forwarding client to its broker: a thread that connects,
// serves the connection, and when it ends (or the attempt fails, whatever
// the reason: network, TLS, name lookup, a busy broker) tries again after
// 5 s, doubling the wait up to 120 s. A broker that refuses the account is
// not asked again until the server is reconfigured.
//
// Each attempt gets a fresh libmosquitto handle: libmosquitto would resend
// the QoS 1 messages of a lost connection by itself, while the client has
// already put them back in its cache, and a message must not go twice.
#pragma once

#include "MqttClient.h"
#include "mqttlinkowner.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

struct mosquitto;
struct mosquitto_message;

namespace lumbra::forward {

class MqttConnection {
public:
    // First and longest wait before an attempt after a failed one.
    static constexpr int kFirstRetryS = 5;
    static constexpr int kLongestRetryS = 120;

    MqttConnection(const MqttClient::Settings &settings, LinkOwner *owner);
    ~MqttConnection();
    MqttConnection(const MqttConnection &) = delete;
    MqttConnection &operator=(const MqttConnection &) = delete;

    void start();
    // Waits a moment for outstanding acknowledgements, says goodbye to the
    // broker and ends the thread.
    void stop();
    bool refused() const { return m_refused; }

    // libmosquitto's result; MOSQ_ERR_NO_CONN while there is no connection.
    int publish(const QByteArray &topic, const QByteArray &payload, int qos, int *mid);
    int subscribe(const QByteArray &filter);
    int unsubscribe(const QByteArray &filter);

    // For the callbacks.
    void onConnect(int rc);
    void onPublish(int mid, int reason);
    void onMessage(const mosquitto_message *message);
    int keyPassword(char *buf, int size);
    void onLibraryError(const char *text);
    QString libraryDetail() const;

private:
    struct Deleter {
        void operator()(mosquitto *m) const;
    };
    using Handle = std::unique_ptr<mosquitto, Deleter>;

    void run();
    Handle makeHandle(QString *why);
    bool setTls(mosquitto *m, QString *why);
    bool attempt(QString *why);
    int serve(mosquitto *m);
    void sayGoodbye(mosquitto *m);
    bool waitBeforeRetry(int seconds, const QString &why);
    void waitForStop();
    void logAttempt(const QString &why, int seconds);
    QString refusalText(int rc) const;
    bool isAuthRefusal(int rc) const;

    const MqttClient::Settings m_settings;
    LinkOwner *m_owner;  // told everything, never with m_mutex held
    const QByteArray m_id;  // for log lines

    std::mutex m_mutex;  // guards m_handle for other threads, and the waits
    std::condition_variable m_wake;
    Handle m_handle;  // the current connection's, while it is served
    std::thread m_thread;
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_up{false};
    std::atomic<int> m_refusal{0};
    std::atomic<bool> m_refused{false};
    QString m_libraryError;  // what the library logged in this attempt
    QString m_lastWhy;
    int m_lastWait = 0;
    qint64 m_lastWhyAt = 0;
    int m_heldAttempts = 0;
};

}  // namespace lumbra::forward
