#include "macrointerpreter.h"

#include "macrolib.h"
#include "macrosandbox.h"

#include "generalFunc/globals.h"

#include <QByteArray>

#include <climits>
#include <cstdlib>

extern "C" {
#include <lauxlib.h>
#include <lua.h>
#include <lualib.h>
}

namespace lumbra {

namespace {

// Instructions between two looks at the clock: a few tens of microseconds
// of script on the box, so the clock costs next to nothing and a runaway
// loop is stopped within a millisecond of its budget.
const int kHookEvery = 1000;

using Clock = std::chrono::steady_clock;

int collectGarbage(lua_State *L)
{
    lua_gc(L, LUA_GCCOLLECT, 0);
    return 0;
}

}  // namespace

// Finalizers that scripts set (__gc) are Lua code too, and may run whenever
// the collector does: in a run, in collect() or when the state closes. Each
// of these runs under a budget, so none of them can loop for ever.
class MacroInterpreter::Budget {
public:
    explicit Budget(MacroInterpreter &self) : m_self(self), m_outermost(self.m_depth == 0)
    {
        if (m_outermost) {
            self.m_deadline = Clock::now() + self.m_budget;
            self.m_timedOut = false;
        }
        ++self.m_depth;
    }
    ~Budget()
    {
        --m_self.m_depth;
        if (m_outermost)
            m_self.resetHooks();
    }

private:
    MacroInterpreter &m_self;
    bool m_outermost;
};

MacroInterpreter::MacroInterpreter(const MacroSettings &settings, const std::atomic<bool> *abort)
    : m_sandbox(settings.sandbox), m_abort(abort)
{
    setLimits(settings.timeLimitMs, settings.memoryLimitKb);
    m_L = lua_newstate(&MacroInterpreter::allocate, this);
    if (!m_L) {
        zlog_error(g_zlog, "script interpreter: no memory for a new state");
        return;
    }
    lua_atpanic(m_L, &MacroInterpreter::panic);
    luaL_openlibs(m_L);
    registerMacroGlobals(m_L);
    reserveHooks(m_L);
    if (m_sandbox)
        applySandbox(m_L);
    lua_sethook(m_L, &MacroInterpreter::hook, LUA_MASKCOUNT, kHookEvery);
    // Created after the hook, so it has it too; it stays on the main
    // state's stack, which keeps it alive.
    m_side = lua_newthread(m_L);
}

MacroInterpreter::~MacroInterpreter()
{
    if (!m_L)
        return;
    Budget budget(*this);
    lua_close(m_L);
}

void MacroInterpreter::setLimits(int timeLimitMs, int memoryLimitKb)
{
    m_budget = std::chrono::milliseconds(timeLimitMs);
    m_limit = static_cast<qint64>(memoryLimitKb) * 1024;
}

void *MacroInterpreter::allocate(void *ud, void *ptr, size_t osize, size_t nsize)
{
    auto *self = static_cast<MacroInterpreter *>(ud);
    // Without a block, osize tells the kind of object, not a size.
    const qint64 old = ptr ? static_cast<qint64>(osize) : 0;
    if (nsize == 0) {
        std::free(ptr);
        self->m_used -= old;
        return nullptr;
    }
    const qint64 grow = static_cast<qint64>(nsize) - old;
    // Only scripts are refused: the library's own set-up must not fail.
    if (grow > 0 && self->m_depth > 0 && self->m_used + grow > self->m_limit)
        return nullptr;
    void *block = std::realloc(ptr, nsize);
    if (!block)
        return grow <= 0 ? ptr : nullptr;  // Lua relies on a shrink never failing
    self->m_used += grow;
    return block;
}

void MacroInterpreter::hook(lua_State *L, lua_Debug *)
{
    void *ud = nullptr;
    lua_getallocf(L, &ud);
    auto *self = static_cast<MacroInterpreter *>(ud);
    if (!self->m_timedOut) {
        if (self->m_depth == 0 || (!self->aborted() && Clock::now() < self->m_deadline)) {
            // A coroutine kept from a run that was stopped still looks at
            // every instruction.
            if (lua_gethookcount(L) != kHookEvery)
                lua_sethook(L, &MacroInterpreter::hook, LUA_MASKCOUNT, kHookEvery);
            return;
        }
        self->m_timedOut = true;
    }
    // From now on every instruction fails, so a pcall in the script catches
    // the stop only until its caller's next instruction.
    lua_sethook(L, &MacroInterpreter::hook, LUA_MASKCOUNT, 1);
    luaL_error(L, "time limit");
}

int MacroInterpreter::panic(lua_State *L)
{
    const char *msg = lua_type(L, -1) == LUA_TSTRING ? lua_tostring(L, -1) : "?";
    zlog_error(g_zlog, "script interpreter: unprotected error: %s", msg);
    return 0;
}

void MacroInterpreter::resetHooks()
{
    lua_sethook(m_L, &MacroInterpreter::hook, LUA_MASKCOUNT, kHookEvery);
    if (m_side)
        lua_sethook(m_side, &MacroInterpreter::hook, LUA_MASKCOUNT, kHookEvery);
    m_timedOut = false;
}

MacroInterpreter::Outcome MacroInterpreter::run(const QString &text, bool side, QString *message)
{
    lua_State *L = side ? m_side : m_L;
    if (!L || lua_status(L) != LUA_OK)
        return Outcome::Unusable;
    const int top = lua_gettop(L);
    const QByteArray code = text.toUtf8();
    int rc = LUA_OK;
    bool timedOut = false;
    {
        Budget budget(*this);
        rc = luaL_loadstring(L, code.constData());
        if (rc == LUA_OK)
            rc = lua_pcall(L, 0, LUA_MULTRET, 0);
        timedOut = m_timedOut;
    }
    Outcome outcome = Outcome::Done;
    if (rc != LUA_OK) {
        const char *msg = lua_type(L, -1) == LUA_TSTRING ? lua_tostring(L, -1) : nullptr;
        *message = msg ? QString::fromUtf8(msg) : QStringLiteral("script error without a message");
        outcome = timedOut ? Outcome::TimeLimit : rc == LUA_ERRMEM ? Outcome::MemoryLimit : Outcome::Failed;
    }
    // What a run leaves behind would pile up over years of cyclic runs.
    lua_settop(L, top);
    return outcome;
}

int MacroInterpreter::remainingMs() const
{
    if (m_depth == 0)
        return static_cast<int>(m_budget.count());
    if (m_timedOut || aborted())
        return 0;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_deadline - Clock::now()).count();
    return static_cast<int>(qBound<qint64>(0, left, INT_MAX));
}

int MacroInterpreter::stackHeight() const
{
    return m_L ? lua_gettop(m_L) : -1;
}

void MacroInterpreter::collect()
{
    if (!m_L)
        return;
    Budget budget(*this);
    // Protected: a finalizer's error must not reach the panic handler.
    lua_pushcfunction(m_L, &collectGarbage);
    if (lua_pcall(m_L, 0, 0, 0) != LUA_OK)
        lua_pop(m_L, 1);
}

MacroInterpreter *MacroInterpreter::of(lua_State *L)
{
    void *ud = nullptr;
    return lua_getallocf(L, &ud) == &MacroInterpreter::allocate ? static_cast<MacroInterpreter *>(ud) : nullptr;
}

int MacroInterpreter::remainingMs(lua_State *L)
{
    const MacroInterpreter *self = of(L);
    return self && self->inRun() ? self->remainingMs() : INT_MAX;
}

void MacroInterpreter::checkBudget(lua_State *L)
{
    MacroInterpreter *self = of(L);
    if (!self || !self->inRun() || self->remainingMs() > 0)
        return;
    self->m_timedOut = true;
    lua_sethook(L, &MacroInterpreter::hook, LUA_MASKCOUNT, 1);
    luaL_error(L, "time limit");
}

}  // namespace lumbra
