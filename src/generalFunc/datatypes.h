// Name tables shared by configuration, the macro engine and its library.
#pragma once

#include <cstddef>

// Data type names; scripts and configuration select conversions by them.
inline constexpr const char *DATA_TYPE[] = {
    "DATA_TYPE_BIT", "DATA_TYPE_BB",  "DATA_TYPE_BUB", "DATA_TYPE_BD",      "DATA_TYPE_WB",
    "DATA_TYPE_WUB", "DATA_TYPE_WD",  "DATA_TYPE_DB",  "DATA_TYPE_DUB",     "DATA_TYPE_DD",
    "DATA_TYPE_DF",  "DATA_TYPE_STR_UNI", "DATA_TYPE_STR_ASC"};
inline constexpr size_t DATA_TYPE_COUNT = sizeof(DATA_TYPE) / sizeof(DATA_TYPE[0]);

// Lua globals whose value is their own name, so scripts write them unquoted.
inline constexpr const char *MACROVAR[] = {
    "DATA_TYPE_BIT", "DATA_TYPE_BB",  "DATA_TYPE_BUB", "DATA_TYPE_BD",      "DATA_TYPE_WB",
    "DATA_TYPE_WUB", "DATA_TYPE_WD",  "DATA_TYPE_DB",  "DATA_TYPE_DUB",     "DATA_TYPE_DD",
    "DATA_TYPE_DF",  "DATA_TYPE_STR_UNI", "DATA_TYPE_STR_ASC", "CYCLE", "TRIGGER"};
inline constexpr size_t MACROVAR_COUNT = sizeof(MACROVAR) / sizeof(MACROVAR[0]);

// Lua names of the script function library, in registration order.
inline constexpr const char *MACROFUNCNAME[] = {
    "setdata",          "getdata",           "getHmiModel",        "suspendlink",
    "startlink",        "switchScreen",      "readdevice",         "writedevice",
    "getdevicemutex",   "releasedevicemutex", "logdevice",         "setTriggered",
    "getTriggered",     "checkMethod",       "HIBYTE",             "LOBYTE",
    "hmiPrint",         "runScriptFromId",   "runScriptText",      "timerRun",
    "timerStop",        "timerReset",        "timerSkip",          "timerValue",
    "timerStr",         "timerState",        "timerSetLimit",      "timerSetOutput",
    "timerWaitFor",     "timerOutRun",       "initCommunication",  "sendData",
    "recvData",         "getLinkNum",        "closeCommunication", "resetCommunication",
    "statusCommunication", "setSystemParameter", "getSystemParameter", "mouseClick",
    "mouseClickAbs",    "gbk2utf",           "utf2gbk"};
inline constexpr size_t MACROFUNCNAME_COUNT = sizeof(MACROFUNCNAME) / sizeof(MACROFUNCNAME[0]);

static_assert(DATA_TYPE_COUNT == 13);
static_assert(MACROVAR_COUNT == 15);
static_assert(MACROFUNCNAME_COUNT == 43);
