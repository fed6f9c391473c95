// The user's own MQTT brokers: one forwarding client per server of
// "./iotRunTime/ServerCfg.json", rebuilt when the platform changes the list.
#pragma once

#include "MqttClient.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QMutex>
#include <QString>

class MqttCliManager {
public:
    static MqttCliManager *getInstance();
    ~MqttCliManager();

    // (Re)builds every client from the file; no file, no clients.
    void init();
    // Ends every client; for an orderly end and tests.
    void stop();

    // "/DevRecv/OnlineMqttServerSet": file first, then a rebuild.
    void onlineSetServer(const QString &message);
    // Applies an add, modify or delete of server records to the file and
    // acknowledges it; false when the file was not changed.
    bool setConfigFile(const QString &message);
    // "/DevRecv/OnlineMqttTopicSet": the running clients' topics and the file.
    void OnlineMQTopicSet(const QString &message);

    static void replaceSysVar(QString &text, const QDateTime &when);
    // An alarm event (type 1 alarm, 2 recovery) for every "AlarmSend" topic.
    void dealMqttDataForward(const int &index, const int &type, QString value);

    int clientCount() const;
    // The client of a server configuration id, or null; for tests and tools.
    MqttClient *client(int configId) const;

    // The dispatch table's entries for the two online topics.
    static int onlineServerHandler(const QString &payload);
    static int onlineTopicHandler(const QString &payload);

private:
    MqttCliManager() = default;
    void clear();
    bool readFile(QJsonObject *root) const;
    QString cacheDirFor(int storeType) const;
    void addClient(const QJsonObject &server, const QJsonArray &all);
    void applyTopicEdit(const QString &op, int configId, const QList<MqttClient::topicData_t> &topics);

    mutable QMutex m_mutex;
    QList<MqttClient *> m_clients;
};
