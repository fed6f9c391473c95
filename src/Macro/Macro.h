// The macro engine: the scripts of "./iotRunTime/ScriptConfiguration.json",
// run once after the links' first poll cycle or cyclically, all on the
// engine's own thread, which alone owns the Lua interpreter. Other threads
// hand it work and never wait for a script.
#pragma once

#include "macrosettings.h"

#include "device_comm/addressinfo.h"
#include "device_comm/src/repeatlimiter.h"

#include <QElapsedTimer>
#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

class HmiToMacroInterface;

namespace lumbra {
class MacroInterpreter;
}

class Macro : public QThread {
    Q_OBJECT
public:
    static Macro *getInstance();
    ~Macro() override;

    // (Re)loads the script file and the box's script limits on the calling
    // thread and registers the addresses the scripts read; the engine takes
    // the new scripts up between two passes. The first call also schedules
    // the run-once scripts (see runOnceWhenLinksPolled).
    void init();
    // The online edit of the script file; init() applies it.
    void setConfigFile(const QString &message);

    // Runs a stored script (on the main state) or a text. On the engine's
    // thread they run at once; from any other thread they are queued and the
    // call returns without waiting. The int forms give 0 for an unknown id
    // (and, at once on the engine's thread, for a script whose enable bit
    // reads 0), else 1.
    int runLua(int id);
    void runLua(const QString &text);
    // The same on the side state, for scripts started from inside a script.
    int runFromLua(int id);
    void runFromLua(const QString &text);

    static QString claerComment(QString text);
    // The device addresses that the texts' written-out getdata calls read.
    static QList<AddressInfo> dealGetdataAddress(const QStringList &texts);
    // Registers the scripts' device addresses with the link manager.
    void externalAddr();
    // An address a running script reads: true when it was new and is now
    // polled (its first read may then wait for the link). At most
    // kMaxLearned are added until the next reload.
    bool learnAddress(const AddressInfo &a);
    static constexpr int kMaxLearned = 1024;

    HmiToMacroInterface *hmiToMacro() const { return m_hmi.get(); }

    // Ends the thread, stopping a running script at once; for an orderly end
    // and tests. The next call that needs the engine starts it again.
    void stop();
    // For tests and benchmarks: waits until what was queued before has run.
    bool sync(int timeoutMs);
    // For checks: the interpreter's stack height after the last run (-1
    // before the first), and the addresses registered for the scripts.
    int stackHeight() const { return m_stackHeight; }
    QList<AddressInfo> externalAddrList() const;

protected:
    void run() override;

private:
    struct Cyclic {
        int id;
        int periodMs;
    };
    // What one load of the script file yields; replaced whole by a reload.
    struct ScriptSet {
        QMap<int, QString> texts;
        QList<Cyclic> cyclic;
        QList<int> runOnce;
        QMap<int, AddressInfo> saveBits;
        QList<AddressInfo> addresses;  // getdata calls and enable bits off the box
    };
    using SetPtr = std::shared_ptr<const ScriptSet>;
    using Task = std::function<void()>;

    Macro();
    // macroscripts.cpp
    static bool readScripts(QJsonArray *items);
    static void loadScript(const QJsonObject &item, ScriptSet &set, QStringList &texts);
    static QString addressKey(const AddressInfo &a);

    // Macro.cpp: the engine thread.
    void post(Task task);
    void ensureRunning();
    // Waits up to waitMs (for ever when negative) for work, a reload or a stop.
    bool takeTask(Task *task, int waitMs);
    SetPtr scripts(unsigned *generation = nullptr) const;
    lumbra::MacroSettings settings() const;
    bool startRequested() const;
    void runOnceWhenLinksPolled();
    void runPass();
    // At once on the engine's thread, else queued.
    int handStored(int id, bool side);
    void handText(const QString &text, bool side);
    int runStored(int id, bool side);
    void runText(const QString &text, int id, bool side);
    bool enabled(const ScriptSet &set, int id);
    void report(int id, int outcome, const QString &message);
    void freeMemoryHeldByGlobals();
    lumbra::MacroInterpreter &interpreter();
    bool onEngine() const { return QThread::currentThread() == this; }

    std::unique_ptr<HmiToMacroInterface> m_hmi;

    // Guards the script set, the learned addresses and the settings; never
    // held while a script runs.
    mutable QMutex m_mutex;
    SetPtr m_set;
    unsigned m_generation = 0;
    QList<AddressInfo> m_learned;
    QSet<QString> m_known;  // keys of every registered address
    lumbra::MacroSettings m_settings;
    bool m_initialised = false;
    QMutex m_initLock;      // one reload at a time
    QMutex m_registerLock;  // registrations reach the link manager in order
    RepeatLimiter m_tooManyLearned;

    // The queue of work for the engine thread.
    std::mutex m_queueLock;
    std::condition_variable m_wake;
    std::deque<Task> m_queue;
    RepeatLimiter m_queueFull;
    bool m_reloaded = false;  // the script set changed: the engine looks again
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_abort{false};  // stops the running script
    QMutex m_startLock;
    std::atomic<bool> m_closed{false};

    // Engine-thread state.
    std::unique_ptr<lumbra::MacroInterpreter> m_interp;
    unsigned m_seenGeneration = ~0u;
    QHash<int, QElapsedTimer> m_lastRuns;
    QHash<QString, RepeatLimiter> m_reports;
    bool m_runOnceDone = false;
    std::atomic<int> m_stackHeight{-1};
};
