// One connection to one of the user's own MQTT brokers: it publishes the
// configured topics from its own thread, writes back what arrives on its
// subscriptions, and keeps what it could not send in an SQLite cache until
// the broker is back.
#pragma once

#include <QDateTime>
#include <QList>
#include <QMutex>
#include <QString>
#include <QThread>

#include <atomic>
#include <deque>
#include <memory>

class SQLiteDB;
struct mosquitto;
struct mosquitto_message;

class MqttClient : public QThread {
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
        int mqttVersion = 4;
        int pushPeriod = 0;  // seconds
        bool useAuthentication = false;
        QString userName;
        QString password;
        bool useOfflineCache = false;
        int storeType = 2;
        int cacheNum = 0;
        QString cacheDir;
    };

    explicit MqttClient(const Settings &settings);
    ~MqttClient() override;
    MqttClient(const MqttClient &) = delete;
    MqttClient &operator=(const MqttClient &) = delete;

    const Settings &settings() const { return m_settings; }
    int configId() const { return m_settings.configId; }
    bool isConnected() const { return m_connected; }

    void init();
    void addPubTopicData(topicData_t &topic);
    void addSubTopicData(topicData_t &topic);
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
    bool delCachedb(const int &n);
    unsigned cachedRows() const { return m_dbDataNum; }
    // One cached message to the broker: the drain step of a pass.
    bool drainOne();

    void onConnect(int rc);
    void onDisconnect(int rc);
    void onMessage(const mosquitto_message *message);
    void onPublish(int mid);

protected:
    void run() override;

private:
    struct Pending {
        int mid;
        QString topic;
        QByteArray payload;
        QString time;
    };
    struct MosqDeleter {
        void operator()(mosquitto *m) const;
    };

    void openCache();
    void setCallbacks();
    void setWill();
    void publishOnline();
    void subscribeAll();
    bool publish(const QString &topic, const QByteArray &payload, const QString &time);
    int publishNow(const QString &topic, const QByteArray &payload, const QString &time);
    void cacheMessage(const QString &topic, const QByteArray &payload, const QString &time);
    void cacheInflight();
    void trimCache();
    void publishDue(const QDateTime &now);
    bool due(const topicData_t &topic, qint64 second) const;
    void sendStatus(bool connected);

    Settings m_settings;
    std::unique_ptr<mosquitto, MosqDeleter> m_mosq;
    std::unique_ptr<SQLiteDB> m_db;
    std::atomic<unsigned> m_dbDataNum{0};
    std::atomic<bool> m_connected{false};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_refused{false};
    bool m_callbacksSet = false;
    bool m_loopStarted = false;

    mutable QMutex m_topicsMutex;
    QList<topicData_t> m_pubTopics;
    QList<topicData_t> m_subTopics;

    // Messages handed to libmosquitto but not yet written to the socket: a
    // connection lost before then would drop them, so they go to the cache.
    QMutex m_sendMutex;
    std::deque<Pending> m_inflight;
};
