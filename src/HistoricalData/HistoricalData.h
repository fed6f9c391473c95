// The history service: samples groups of device values by period, by trigger
// or at clock times into "history_iot.db", uploads the stored rows in batches
// per group and deletes a batch only once the cloud has acknowledged it.
#pragma once

#include "device_comm/addressinfo.h"
#include "hisdelivery.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
#include <memory>

class SQLiteDB;

class HistoricalData : public QThread {
    Q_OBJECT
public:
    struct sampData_t {
        int code = 0;
        QString name;
        int dataType = 0;
        int totalDigits = 0;
        int decimalDigits = 0;
        int dealType = 0;
        AddressInfo addr;
    };

    enum SampleMethod { SAMPLE_CYCLE = 1, SAMPLE_TRIGGER = 2, SAMPLE_TIMING = 3 };
    enum TriggerMethod { TRIGGER_LEVEL_HIGH = 0, TRIGGER_LEVEL_LOW = 1, TRIGGER_RISING = 2, TRIGGER_FALLING = 3 };

    struct HisDataCfg_t {
        unsigned groupId = 0;
        QString groupName;
        QString sampleInterval;     // "h,m,s" as configured
        int period = 0;             // seconds; 0: never cyclic
        int sampleMethod = 0;
        QString triggerMethodText;  // as configured
        int triggerMethod = -1;     // its number, worked out once at load
        AddressInfo triggerAddr;
        int sampleTotal = 0;
        int saveDay = 0;
        QStringList timingData;     // "hh:mm" clock times
        int timingMinute = -1;
        QList<sampData_t> samples;

        // Sampling memory.
        qint64 lastSampleSecond = -1;
        bool edge = false;
        QString lastHhmm;
        int lastMinute = -1;
    };

    struct sendDataTime_t {
        QString data;
        QString time;
        // The row's id in the store: lets the platform tell two equal samples
        // of one second from a resent row. Left out of the message when < 0.
        qint64 rowId = -1;
    };

    // Unix seconds; replaceable so that tests can walk the clock.
    using Clock = qint64 (*)();

    static HistoricalData *getInstance();
    ~HistoricalData() override;

    // Opens the store, loads "./iotRunTime/HistoryConfiguration.json",
    // registers the addresses and starts the thread.
    void init();
    // init() without starting the thread: false when there is nothing to run.
    bool load();
    // Ends the thread after its current tick; for an orderly end and tests.
    void stop();
    void setClock(Clock clock) { m_clock = clock; }

    bool cycleSampleFun(HisDataCfg_t &group);
    bool triggerSampleFun(HisDataCfg_t &group);
    bool timingSampleFun(HisDataCfg_t &group);
    bool sampleData(HisDataCfg_t &group);
    // A send pass: a batch for each group with rows and none in flight, and
    // the batches in flight that are due again.
    void sendData();
    // The cloud took the group's batch in flight: delete exactly its rows,
    // and send the group's next batch at once.
    void AckdelHisData(unsigned int groupId);
    // Called with mutex() held.
    bool delHisData(const int &n);
    void timerRefreshData();
    // Recounts the rows and gives the pages of deleted ones back to the disk.
    void refreshStore();
    bool externalAddr();
    void setConfigFile(const QString &message);

    void setUploadFunc(const bool &on) { m_uploadFunc = on; }
    void setCompress(const bool &on) { m_compress = on; }
    bool uploadFunc() const { return m_uploadFunc; }
    bool compress() const { return m_compress; }

    // Not locked: for the online setters on the dispatching thread, which
    // take mutex() around their changes.
    QList<HisDataCfg_t> &HisDataCfgList() { return m_groups; }
    QMap<unsigned, QStringList> &groupId_dataformat() { return m_formats; }
    QMutex &mutex() { return m_mutex; }
    // Online edits of one group, under the mutex; the record replaced or
    // removed goes to *old. A group's stored rows are read against its
    // current labels, so rows stored under other labels are dropped, and
    // with them the group's unacknowledged batch.
    // putGroup: true when a group with that id was replaced, else appended.
    bool putGroup(const HisDataCfg_t &group, HisDataCfg_t *old = nullptr);
    // False when no group has that id.
    bool removeGroup(unsigned groupId, HisDataCfg_t *old = nullptr);
    // Starts the thread unless it runs: groups added online to a box whose
    // file was unusable at start-up get sampled.
    void startIfStopped();
    // The labels of a group's points, "type_decimals" ("7_-1" for text).
    static QStringList dataFormats(const HisDataCfg_t &group);
    // A group record from one object of the file's "data" array.
    static HisDataCfg_t groupFromJson(const QJsonObject &item);

protected:
    void run() override;

private:
    HistoricalData() = default;
    void tick();
    void refreshStoreLocked();
    // Sleeps up to ms, or until an acknowledgement asks for a pass.
    void waitForWake(int ms);
    void sendIfDue();
    void wake();
    qint64 clockNow() const;
    void loadGroups(const QJsonArray &items);
    void logGroup(const HisDataCfg_t &group) const;
    void sampleGroup(HisDataCfg_t &group);
    // The period condition of cyclic and level groups; remembers the second.
    bool periodDue(HisDataCfg_t &group);
    int triggerState(const HisDataCfg_t &group);
    QString readPoint(const sampData_t &point);
    // Called with m_mutex held.
    void dropGroupRows(unsigned groupId);

    QMutex m_mutex;
    std::unique_ptr<SQLiteDB> m_db;
    QList<HisDataCfg_t> m_groups;
    QMap<unsigned, QStringList> m_formats;
    HisDelivery m_delivery;
    Clock m_clock = nullptr;
    qint64 m_now = 0;
    quint64 m_ticks = 0;
    unsigned m_rowCount = 0;
    quint64 m_upCount = 0;  // the outbox's count at the last tick
    std::atomic<bool> m_uploadFunc{false};
    std::atomic<bool> m_compress{false};
    std::atomic<bool> m_sendFlag{false};
    std::atomic<bool> m_running{false};
    QMutex m_wakeMutex;
    QWaitCondition m_wakeUp;
    bool m_woken = false;  // under m_wakeMutex
};
