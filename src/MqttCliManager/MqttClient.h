// One connection to one of the user's own MQTT brokers: it publishes the
// configured topics from its own thread, writes back what arrives on its
// subscriptions, and keeps what it could not send in an SQLite cache until
// the broker is back. With the cache on, messages go at QoS 1 and stay the
// client's until the broker acknowledges them, so that a connection that
// dies unnoticed loses nothing.
#pragma once

#include "mqttlinkowner.h"

#include "generalFunc/logthrottle.h"

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QString>
#include <QThread>

#include <atomic>
#include <deque>
#include <functional>
#include <limits>
#include <memory>

struct mosquitto_message;

namespace lumbra::forward {
class ForwardCache;
class MqttConnection;
struct Fill;
}  // namespace lumbra::forward

class MqttClient : public QThread, private lumbra::forward::LinkOwner {
public:
    struct topicData_t {
        int serverConfigId = 0;
        QString formatName;
        QString funcTypeName;
        int funcType = 0;
        QString topic;
        int sendInterval = 0;
        int sendIntervalType = 1;
        int sendIntervalCode = 0;
        int qos = 0;
        QString json;
        QString jsonV2;
        QString configIds;
        bool triggerEnabled = false;
        QString triggerValue;
        QString max;
        QString min;
        int triIndex = 0;
        int conditionCode = 0;

        // Publishing state, kept by the client's thread.
        qint64 lastSentSecond = -1;
        bool triggerHeld = false;
        bool triggerSeen = false;
        QString lastTriggerValue;
    };

    // What the manager fills from a server record before init().
    struct Settings {
        int configId = 0;
        QString clientId;
        QString host;
        int port = 1883;
        int keepAlive = 60;
        int mqttVersion = 4;  // 3 MQTT 3.1, 4 3.1.1, 5
        int pushPeriod = 0;  // seconds
        bool useAuthentication = false;
        QString userName;
        QString password;
        bool useOfflineCache = false;
        int storeType = 2;
        int cacheNum = 0;
        QString cacheDir;
        // The file an older version kept this server's cache in (named by
        // the client id), taken over when no other server shares that id.
        QString legacyCacheName;
        QString cafile;
        QString capath;
        QString certfile;
        QString keyfile;
        QString keyPassword;
        bool tlsInsecure = false;

        bool tls() const { return !cafile.isEmpty() || !capath.isEmpty(); }
    };

    explicit MqttClient(const Settings &settings);
    ~MqttClient() override;
    MqttClient(const MqttClient &) = delete;
    MqttClient &operator=(const MqttClient &) = delete;

    const Settings &settings() const { return m_settings; }
    int configId() const { return m_settings.configId; }
    bool isConnected() const { return m_connected; }
    // The broker refused the account: no more attempts until reconfigured.
    bool refused() const;

    // Opens the cache and starts connecting; the manager starts the thread.
    void init();
    // False, with a log line, for a topic no broker would take.
    bool addPubTopicData(topicData_t &topic);
    bool addSubTopicData(topicData_t &topic);
    void removePubTopicData(const int &configId);
    void removeSubTopicData(const int &configId);
    QList<topicData_t> pubTopics() const;
    QList<topicData_t> subTopics() const;

    // Builds the topic's payload from its template at when and publishes it.
    bool sendData(topicData_t &topic, const QDateTime &when);
    // Publishes a finished payload; false when it went to the cache or was
    // dropped.
    bool sendData(const topicData_t &topic, QByteArray payload);
    // An alarm event for this client's "AlarmSend" topics.
    void sendAlarm(int index, int type, const QString &value, const QDateTime &when);
    bool checkTri(topicData_t &topic);

    // Ends the thread and the connection; the client can be deleted then.
    void destroyClient();
    // Deletes the oldest n cached rows and compacts the file.
    bool delCachedb(const int &n);
    unsigned cachedRows() const { return m_dbDataNum; }

protected:
    void run() override;

private:
    struct Pending {
        int mid;
        qint64 rowid;  // the cached row it came from, 0 for a new message
        QString topic;
        QByteArray payload;
        QString time;
    };

    void linkUp() override;
    void linkDown() override;
    void published(int mid, int reason) override;
    void received(const mosquitto_message *message) override;
    bool will(QByteArray *topic, QByteArray *payload) override;
    bool settled() override;

    void openCache();
    bool acceptable(const topicData_t &topic, bool subscribe) const;
    void publishOnline();
    void subscribeAll();
    // The template filled with point values, "%sn%", the system variables
    // at when and what extra knows.
    QByteArray render(const QString &tmpl, const QDateTime &when,
                      const std::function<bool(const QString &, lumbra::forward::Fill *)> &extra = nullptr);
    bool pointVariable(const QString &name, lumbra::forward::Fill *out);
    bool publish(const QString &topic, const QByteArray &payload, const QString &time);
    bool publishUncached(const QString &topic, const QByteArray &payload);
    void cache(const QString &topic, const QByteArray &payload, const QString &time);
    void takeBackInflight();
    void serviceCache();
    void flushAcked();
    void drainCache();
    void dropped(const QString &topic, const QString &why);
    void publishDue(const QDateTime &now);
    bool due(const topicData_t &topic, qint64 second) const;
    void sendStatus(bool connected);

    Settings m_settings;
    std::unique_ptr<lumbra::forward::MqttConnection> m_link;
    std::unique_ptr<lumbra::forward::ForwardCache> m_cache;
    std::atomic<unsigned> m_dbDataNum{0};
    std::atomic<bool> m_connected{false};
    // Set once, before or while the thread runs: a stop that comes before
    // the thread has begun must still end it.
    std::atomic<bool> m_stopping{false};

    mutable QMutex m_topicsMutex;
    QList<topicData_t> m_pubTopics;
    QList<topicData_t> m_subTopics;

    // Taken before the connection's own lock, after m_topicsMutex.
    QMutex m_sendMutex;
    std::deque<Pending> m_inflight;  // handed to the broker, not acknowledged
    static constexpr qint64 kBeforeAllRows = std::numeric_limits<qint64>::min();
    qint64 m_drainAfter = kBeforeAllRows;  // the last cached row handed over
    QList<qint64> m_acked;  // cached rows acknowledged, to delete
    QHash<QString, lumbra::LogThrottle> m_dropLogs;  // by topic; under m_sendMutex
    lumbra::LogThrottle m_templateLog;  // under m_topicsMutex, as the next
    lumbra::LogThrottle m_codeLog;
};
