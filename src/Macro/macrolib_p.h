// The library's native functions and the helpers its files share.
#pragma once

extern "C" {
#include <lua.h>
}

#include <QByteArray>

#include <cmath>
#include <limits>

class HmiToMacroInterface;

namespace lumbra {

// Truncates toward zero and saturates at Int's range, so a script's NaN or
// 1e300 cannot become undefined behaviour in a cast.
template <typename Int>
Int macroTruncate(double v)
{
    if (std::isnan(v))
        return 0;
    if (v >= static_cast<double>(std::numeric_limits<Int>::max()))
        return std::numeric_limits<Int>::max();
    if (v <= static_cast<double>(std::numeric_limits<Int>::min()))
        return std::numeric_limits<Int>::min();
    return static_cast<Int>(v);
}

HmiToMacroInterface *macroHmi();

// Functions that may block start with macroEnter: a script whose time is up
// stops there (it does not return then, so call it before any C++ object is
// alive). Their waits are cut to what is left of the run's time.
void macroEnter(lua_State *L);
int macroWaitMs(lua_State *L, int requestedMs);

// The raw bytes of a string or number argument (binary safe); empty otherwise.
QByteArray macroBytes(lua_State *L, int arg);

// Elements 1..count of the table at arg as bytes (each truncated, low 8 bits);
// count is clamped to the table's length.
QByteArray macroTableBytes(lua_State *L, int arg, int count);
// Stores bytes at 1..size() of the table at arg; later elements stay.
void macroStoreBytes(lua_State *L, int arg, const QByteArray &bytes);

// Values.
int l_HMIsetData(lua_State *L);
int l_HMIgetData(lua_State *L);

// Links, scripts and small helpers.
int l_HMIgetHmiModel(lua_State *L);
int l_HMIsuspendlink(lua_State *L);
int l_HMIstartlink(lua_State *L);
int l_HMIhibyte(lua_State *L);
int l_HMIlobyte(lua_State *L);
int l_HMIprint(lua_State *L);
int l_HMIrunScriptFromId(lua_State *L);
int l_HMIrunScripText(lua_State *L);
int l_HMIgetLinkNum(lua_State *L);
int l_HMIcloseCommunication(lua_State *L);

// Functions kept so that scripts written for screen panels still load; they
// have nothing to act on in a gateway.
int l_HMIstub(lua_State *L);
inline constexpr lua_CFunction l_HMIswitchScreen = l_HMIstub;
inline constexpr lua_CFunction l_HMIgetDeviceMutex = l_HMIstub;
inline constexpr lua_CFunction l_HMIreleaseDeviceMutex = l_HMIstub;
inline constexpr lua_CFunction l_HMIlogdevice = l_HMIstub;
inline constexpr lua_CFunction l_HMIsetTriggeredV = l_HMIstub;
inline constexpr lua_CFunction l_HMIgetTriggeredV = l_HMIstub;
inline constexpr lua_CFunction l_HMIsetSysPar = l_HMIstub;
inline constexpr lua_CFunction l_HMIgetSysPar = l_HMIstub;
inline constexpr lua_CFunction l_HMIMouseClick = l_HMIstub;
inline constexpr lua_CFunction l_HMIMouseClickAbs = l_HMIstub;

// Raw bytes on free-protocol links.
int l_HMIreaddevice(lua_State *L);
int l_HMIwritedevice(lua_State *L);
int l_HMIinitCommunication(lua_State *L);
int l_HMIsendData(lua_State *L);
int l_HMIrecvData(lua_State *L);
int l_HMIresetCommunication(lua_State *L);
int l_HMIstatusCommunication(lua_State *L);

// Timers.
int l_HMItimerRun(lua_State *L);
int l_HMItimerStop(lua_State *L);
int l_HMItimerReset(lua_State *L);
int l_HMItimerSkip(lua_State *L);
int l_HMItimerValue(lua_State *L);
int l_HMItimerStr(lua_State *L);
int l_HMItimerState(lua_State *L);
int l_HMItimerSetLimit(lua_State *L);
int l_HMItimerSetOutput(lua_State *L);
int l_HMItimerWaitFor(lua_State *L);
int l_HMItimerOutRun(lua_State *L);

// Text and check values.
int l_HMIcheckMethod(lua_State *L);
int l_HMIgbk2utf(lua_State *L);
int l_HMIutf2gbk(lua_State *L);

}  // namespace lumbra
