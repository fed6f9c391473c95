// One Lua interpreter with the script library, a time budget per run and a
// memory ceiling. Not thread-safe: the macro engine's thread is its only user.
#pragma once

#include "macrosettings.h"

#include <QString>

#include <atomic>
#include <chrono>

struct lua_State;
struct lua_Debug;

namespace lumbra {

class MacroInterpreter {
public:
    enum class Outcome { Done, Failed, TimeLimit, MemoryLimit, Unusable };

    // abort, when it turns true, stops the current run at its next
    // instructions; it is read from the interpreter's thread only.
    MacroInterpreter(const MacroSettings &settings, const std::atomic<bool> *abort);
    ~MacroInterpreter();
    MacroInterpreter(const MacroInterpreter &) = delete;
    MacroInterpreter &operator=(const MacroInterpreter &) = delete;

    bool usable() const { return m_L != nullptr; }
    bool sandboxed() const { return m_sandbox; }
    // New limits for the runs to come.
    void setLimits(int timeLimitMs, int memoryLimitKb);

    // Runs text on the main state, or on the side thread that scripts started
    // from inside a script use so that the caller's stack stays as it was.
    // A run that starts while none is in progress gets the time budget; one
    // started from inside a script shares its caller's. The stack is put back
    // to its height before the run; *message gets Lua's error message.
    Outcome run(const QString &text, bool side, QString *message);
    bool inRun() const { return m_depth > 0; }
    // Milliseconds left of the current run's budget (0 when spent); the whole
    // limit outside a run.
    int remainingMs() const;
    int stackHeight() const;
    qint64 memoryUsed() const { return m_used; }
    qint64 memoryLimit() const { return m_limit; }
    // A full collection; what stays is held by globals.
    void collect();

    // For the library's blocking functions, on whatever state they were
    // called: the milliseconds a wait may take (INT_MAX on a state that is
    // not an interpreter of this class, or outside a run) ...
    static int remainingMs(lua_State *L);
    // ... and, on entry, the stop of a run whose budget is spent. Call it
    // before any C++ object is alive in the function: it does not return
    // then.
    static void checkBudget(lua_State *L);

private:
    class Budget;
    static MacroInterpreter *of(lua_State *L);
    static void *allocate(void *ud, void *ptr, size_t osize, size_t nsize);
    static void hook(lua_State *L, lua_Debug *ar);
    static int panic(lua_State *L);
    void resetHooks();
    bool aborted() const { return m_abort && m_abort->load(); }

    lua_State *m_L = nullptr;
    lua_State *m_side = nullptr;
    bool m_sandbox = false;
    qint64 m_used = 0;
    qint64 m_limit = 0;
    std::chrono::milliseconds m_budget{1000};
    std::chrono::steady_clock::time_point m_deadline;
    int m_depth = 0;
    bool m_timedOut = false;
    const std::atomic<bool> *m_abort;
};

}  // namespace lumbra
