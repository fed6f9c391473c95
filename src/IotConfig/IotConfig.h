// The configuration synchronisation: at every start the gateway announces
// itself and asks the platform, kind by kind, for anything newer than the six
// configuration files it holds; if anything changed it asks the agent to
// restart it on the new files.
#pragma once

#include "generalFunc/sleeper.h"
#include <QString>
#include <QMutex>
#include <QThread>

#include <atomic>

enum CurrentCfgReq {
    CFG_LINK = 0,
    CFG_REAL = 1,
    CFG_HISTORY = 2,
    CFG_ALARM = 3,
    CFG_SCRIPT = 4,
    CFG_SERVER = 5,
    CFG_DONE = 6,
};

class IotConfig : public QThread {
    Q_OBJECT
public:
    static IotConfig *getInstance();
    ~IotConfig() override;

    // Reads the stored times and starts the thread.
    void init();
    // A reply of kind req came with this "last_updata_time" ("1": nothing newer).
    void ReplyCfg(const CurrentCfgReq &req, const QString &lastUpdateTime);
    // Ends the thread within its current wait; for an orderly end and tests.
    void stop();

    // For checks and logs.
    QString storedTime(int kind) const;
    unsigned changeFlags() const { return m_repFlag; }

    static const char *fileOf(int kind);

protected:
    void run() override;

private:
    IotConfig() = default;
    void readStoredTimes();
    bool waitFor(int ms);
    bool announce();
    void waitForReply();
    void finish();

    QString m_times[6] = {"-1", "-1", "-1", "-1", "-1", "-1"};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_replied{false};
    std::atomic<bool> m_announced{false};
    std::atomic<int> m_curReqType{0};
    std::atomic<unsigned> m_repFlag{0};
    std::atomic<bool> m_stopRequested{false};
    lumbra::Sleeper m_sleeper;
    mutable QMutex m_timesLock;
};
