// The scripts' second timers; the bank itself lives in HmiToMacroInterface.
#include "HmiToMacroInterface.h"
#include "macrolib.h"
#include "macrolib_p.h"

#include <climits>

namespace lumbra {

namespace {

// Counts, limits and waits are unsigned on the bank's side; a negative one
// from a script must not turn into four billion.
unsigned macroUnsigned(lua_State *L, int arg)
{
    return static_cast<unsigned>(qMax(0, macroInt(L, arg)));
}

int pushStatus(lua_State *L, int status)
{
    lua_pushinteger(L, status);
    return 1;
}

}  // namespace

int l_HMItimerRun(lua_State *L)
{
    return pushStatus(L, macroHmi()->timerRun(macroInt(L, 1)));
}

int l_HMItimerStop(lua_State *L)
{
    return pushStatus(L, macroHmi()->timerStop(macroInt(L, 1)));
}

int l_HMItimerReset(lua_State *L)
{
    return pushStatus(L, macroHmi()->timerReset(macroInt(L, 1), macroUnsigned(L, 2)));
}

int l_HMItimerSkip(lua_State *L)
{
    return pushStatus(L, macroHmi()->timerSkip(macroInt(L, 1), macroUnsigned(L, 2)));
}

int l_HMItimerValue(lua_State *L)
{
    lua_pushnumber(L, macroHmi()->timerValue(macroInt(L, 1)));
    return 1;
}

int l_HMItimerStr(lua_State *L)
{
    lua_pushstring(L, macroHmi()->timerStr(macroInt(L, 1), macroInt(L, 2)).toUtf8().constData());
    return 1;
}

int l_HMItimerState(lua_State *L)
{
    return pushStatus(L, macroHmi()->timerState(macroInt(L, 1)));
}

int l_HMItimerSetLimit(lua_State *L)
{
    return pushStatus(L, macroHmi()->timerSetLimit(macroInt(L, 1), macroUnsigned(L, 2), macroInt(L, 3)));
}

int l_HMItimerSetOutput(lua_State *L)
{
    return pushStatus(L, macroHmi()->timerSetOutput(macroInt(L, 1), macroInt(L, 2), macroText(L, 3),
                                                    macroInt(L, 4), macroInt(L, 5)));
}

// The wait counts against the script's time: a script that sleeps past it
// is stopped when it wakes, not after the whole sleep.
int l_HMItimerWaitFor(lua_State *L)
{
    macroEnter(L);
    const int asked = static_cast<int>(qMin<unsigned>(macroUnsigned(L, 1), INT_MAX));
    const int ms = macroWaitMs(L, asked);
    const int status = macroHmi()->timerWaitFor(static_cast<unsigned>(ms));
    if (ms < asked)
        macroEnter(L);
    return pushStatus(L, status);
}

int l_HMItimerOutRun(lua_State *L)
{
    return pushStatus(L, macroHmi()->timerOutRun(macroInt(L, 1), macroInt(L, 2)));
}

}  // namespace lumbra
