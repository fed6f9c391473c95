// The macro engine: one Lua interpreter for the whole process, the scripts of
// "./iotRunTime/ScriptConfiguration.json", run once at start-up or cyclically
// from the engine's own thread.
#pragma once

#include "device_comm/addressinfo.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QTime>

#include <atomic>
#include <memory>

struct lua_State;
class HmiToMacroInterface;

class Macro : public QThread {
    Q_OBJECT
public:
    static Macro *getInstance();
    ~Macro() override;

    // (Re)loads the script file and rebuilds every table; starts the thread
    // when there are cyclic scripts.
    void init();
    // The online edit of the script file; init() applies it.
    void setConfigFile(const QString &message);

    void initLua();
    void runLua(const QString &text);
    int runLua(int id);
    void runFromLua(const QString &text);
    int runFromLua(int id);

    static QString claerComment(QString text);
    void dealGetdataAddress(const QStringList &texts);
    void externalAddr();
    void setMacroSaveBitFlag(const QString &ids);

    HmiToMacroInterface *hmiToMacro() const { return m_hmi.get(); }
    // Held for one whole cyclic pass; whoever else runs a stored script takes it.
    QMutex &mutex() { return m_mutex; }
    // Ends the thread after its current pass; for an orderly end and tests.
    void stop();

    // For checks: the interpreter's stack height (-1 without an interpreter),
    // and the addresses found in the scripts.
    int stackHeight() const;
    QList<AddressInfo> externalAddrList() const { return m_externalAddrs; }

protected:
    void run() override;

private:
    Macro();
    void clearTables();
    bool readScripts(QJsonArray *items);
    void loadScript(const QJsonObject &item, QStringList &texts);
    void addGetdataKey(const QString &key);
    void startOrStopThread();
    void runPass();
    // Loads and calls text on L; logs the Lua message on failure. The stack is
    // left at the height it had before.
    void execute(lua_State *L, const QString &text);
    bool usable(lua_State *L) const;
    int runStored(int id, bool side);

    QMutex m_mutex;
    QList<AddressInfo> m_externalAddrs;
    QList<int> m_cycleIds;
    QMap<int, int> m_saveBitValues;
    QMap<int, AddressInfo> m_saveBitAddrs;
    QMap<int, QString> m_texts;
    QList<int> m_cycleTimes;
    QList<QTime> m_lastRuns;
    QList<int> m_spare;
    QStringList m_runOnce;
    std::unique_ptr<HmiToMacroInterface> m_hmi;
    lua_State *m_L = nullptr;
    lua_State *m_side = nullptr;
    bool m_luaReady = false;
    bool m_started = false;
    std::atomic<bool> m_running{false};
};
