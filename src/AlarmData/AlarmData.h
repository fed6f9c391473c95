// The alarm service: evaluates bit and word conditions on device values every
// 100 ms, stores each alarm and recovery in "alarm_iot.db" and uploads the
// stored events one at a time, deleting each only when the cloud acknowledges
// its request id.
#pragma once

#include "alarmdelivery.h"
#include "device_comm/addressinfo.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMutex>
#include <QString>
#include <QThread>

#include <atomic>
#include <memory>

class SQLiteDB;

class AlarmData : public QThread {
    Q_OBJECT
public:
    struct AlarmCft_t {
        int level = 0;
        int index = 0;
        QString name;
        QString text;
        QString groupName;
        int condition = -1;
        int dataType = 0;
        QString limitMax;
        QString limitMin;
        QString limitValue;
        AddressInfo addr;

        bool alarmed = false;
        bool armed = false;
    };

    enum EventType { EVENT_ALARM = 1, EVENT_RECOVERY = 2 };

    static AlarmData *getInstance();
    ~AlarmData() override;

    // Opens the store, loads "./iotRunTime/AlarmConfiguration.json",
    // registers the addresses and starts the thread.
    void init();
    // init() without starting the thread: false when there is nothing to run.
    bool load();
    // Ends the thread after its current tick; for an orderly end and tests.
    void stop();

    void dealOnAlarm(AlarmCft_t &alarm);
    void dealOffAlarm(AlarmCft_t &alarm);
    void dealOffOnAlarm(AlarmCft_t &alarm);
    void dealOnOFFAlarm(AlarmCft_t &alarm);
    void dealWordAlarm(AlarmCft_t &alarm);
    // One evaluation of every alarm, as the thread does each tick.
    void evaluateAll();

    bool insertData(const int &index, const int &level, const int &type, const QString &value);
    // Sends the oldest stored event, or the one in flight again when due.
    void sendData();
    // The cloud acknowledged reqId; the next event goes at once.
    void MsgAck(unsigned int reqId);
    bool delAlarmData(const int &n);
    void timerRefreshData();
    bool externalAddr();
    void setConfigFile(const QString &message);

    void setUploadFunc(const bool &on) { m_uploadFunc = on; }
    void setCompress(const bool &on) { m_compress = on; }
    bool uploadFunc() const { return m_uploadFunc; }
    bool compress() const { return m_compress; }

    // Not locked: for the online setters on the dispatching thread, which
    // take mutex() around their changes.
    QList<AlarmCft_t> &AlarmCfgList() { return m_alarms; }
    QMutex &mutex() { return m_mutex; }
    // Starts the thread unless it runs: alarms added online to a box whose
    // file was unusable at start-up get evaluated.
    void startIfStopped();
    // An alarm record from one object of the file's "data" array.
    static AlarmCft_t alarmFromJson(const QJsonObject &item);

protected:
    void run() override;

private:
    AlarmData() = default;
    void openStore();
    void readAlarms(const QJsonObject &root);
    // The alarm's current raw value into m_raw; false when the link manager
    // has none to give.
    bool readValue(const AlarmCft_t &alarm);
    bool readBit(const AlarmCft_t &alarm, bool *bit);
    // Codes 0 and 1: alarmed while the bit equals activeBit.
    void dealLevelAlarm(AlarmCft_t &alarm, bool activeBit);
    void evaluateLocked();
    void raise(AlarmCft_t &alarm, int type, const QString &value);

    QMutex m_mutex;
    std::unique_ptr<SQLiteDB> m_db;
    QList<AlarmCft_t> m_alarms;
    QByteArray m_raw;  // reused by every read of a tick
    quint64 m_ticks = 0;
    // Its own lock: an acknowledgement must not wait for an evaluation.
    AlarmDelivery m_delivery;
    std::atomic<bool> m_uploadFunc{false};
    std::atomic<bool> m_compress{false};
    std::atomic<bool> m_running{false};
};

// Where every alarm event is offered to the user's MQTT forwarding; the
// forwarding manager takes it over when it exists.
void forwardAlarmEvent(int index, int type, const QString &value);
