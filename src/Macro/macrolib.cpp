#include "macrolib.h"

#include "HmiToMacroInterface.h"
#include "Macro.h"
#include "macrointerpreter.h"
#include "macrolib_p.h"
#include "macrovalue.h"

#include "generalFunc/datatypes.h"

#include <QDebug>

namespace lumbra {

const lua_CFunction kMacroFunctions[] = {
    l_HMIsetData,          l_HMIgetData,           l_HMIgetHmiModel,        l_HMIsuspendlink,
    l_HMIstartlink,        l_HMIswitchScreen,      l_HMIreaddevice,         l_HMIwritedevice,
    l_HMIgetDeviceMutex,   l_HMIreleaseDeviceMutex, l_HMIlogdevice,         l_HMIsetTriggeredV,
    l_HMIgetTriggeredV,    l_HMIcheckMethod,       l_HMIhibyte,             l_HMIlobyte,
    l_HMIprint,            l_HMIrunScriptFromId,   l_HMIrunScripText,       l_HMItimerRun,
    l_HMItimerStop,        l_HMItimerReset,        l_HMItimerSkip,          l_HMItimerValue,
    l_HMItimerStr,         l_HMItimerState,        l_HMItimerSetLimit,      l_HMItimerSetOutput,
    l_HMItimerWaitFor,     l_HMItimerOutRun,       l_HMIinitCommunication,  l_HMIsendData,
    l_HMIrecvData,         l_HMIgetLinkNum,        l_HMIcloseCommunication, l_HMIresetCommunication,
    l_HMIstatusCommunication, l_HMIsetSysPar,      l_HMIgetSysPar,          l_HMIMouseClick,
    l_HMIMouseClickAbs,    l_HMIgbk2utf,           l_HMIutf2gbk};
const size_t kMacroFunctionCount = sizeof(kMacroFunctions) / sizeof(kMacroFunctions[0]);
static_assert(sizeof(kMacroFunctions) / sizeof(kMacroFunctions[0]) == MACROFUNCNAME_COUNT);

void registerMacroGlobals(lua_State *L)
{
    for (size_t i = 0; i < kMacroFunctionCount; ++i) {
        lua_pushcclosure(L, kMacroFunctions[i], 0);
        lua_setglobal(L, MACROFUNCNAME[i]);
    }
    for (const char *name : MACROVAR) {
        lua_pushstring(L, name);
        lua_setglobal(L, name);
    }
}

double macroNumber(lua_State *L, int arg)
{
    int isnum = 0;
    const lua_Number v = lua_tonumberx(L, arg, &isnum);
    return isnum ? v : 0;
}

int macroInt(lua_State *L, int arg)
{
    return macroTruncate<int>(macroNumber(L, arg));
}

QByteArray macroBytes(lua_State *L, int arg)
{
    const int type = lua_type(L, arg);
    if (type != LUA_TSTRING && type != LUA_TNUMBER)
        return QByteArray();
    // lua_tolstring turns a number into a string in place; work on a copy so
    // the caller's argument keeps its type.
    lua_pushvalue(L, arg);
    size_t len = 0;
    const char *text = lua_tolstring(L, -1, &len);
    QByteArray out(text, static_cast<int>(len));
    lua_pop(L, 1);
    return out;
}

QString macroText(lua_State *L, int arg)
{
    return QString::fromUtf8(macroBytes(L, arg));
}

HmiToMacroInterface *macroHmi()
{
    return Macro::getInstance()->hmiToMacro();
}

void macroEnter(lua_State *L)
{
    MacroInterpreter::checkBudget(L);
}

int macroWaitMs(lua_State *L, int requestedMs)
{
    return qMin(requestedMs, MacroInterpreter::remainingMs(L));
}

QByteArray macroTableBytes(lua_State *L, int arg, int count)
{
    if (lua_type(L, arg) != LUA_TTABLE)
        return QByteArray();
    count = qBound(0, count, static_cast<int>(lua_rawlen(L, arg)));
    QByteArray bytes(count, '\0');
    for (int i = 0; i < count; ++i) {
        lua_rawgeti(L, arg, i + 1);
        bytes[i] = static_cast<char>(macroTruncate<qint64>(macroNumber(L, -1)) & 0xFF);
        lua_pop(L, 1);
    }
    return bytes;
}

void macroStoreBytes(lua_State *L, int arg, const QByteArray &bytes)
{
    for (int i = 0; i < bytes.size(); ++i) {
        lua_pushinteger(L, static_cast<uchar>(bytes[i]));
        lua_rawseti(L, arg, i + 1);
    }
}

int l_HMIstub(lua_State *)
{
    return 0;
}

int l_HMIgetHmiModel(lua_State *L)
{
    lua_pushstring(L, macroHmi()->getHmiModel().toUtf8().constData());
    return 1;
}

namespace {

// One argument addresses the whole link, a second one a single station.
void switchLink(lua_State *L, int (HmiToMacroInterface::*whole)(const QString &),
                int (HmiToMacroInterface::*station)(const QString &))
{
    HmiToMacroInterface *hmi = macroHmi();
    const QString name = macroText(L, 1);
    if (lua_gettop(L) < 2)
        (hmi->*whole)(name);
    else
        (hmi->*station)(name + "," + QString::number(macroNumber(L, 2), 'g', 6));
}

// Bits 8-15 and 0-7 of the integer part, with the 16-bit wrap of negatives.
int pushWordByte(lua_State *L, int byte)
{
    unsigned char word[2] = {0, 0};
    ValueToArray(word, macroNumber(L, 1), QStringLiteral("DATA_TYPE_WUB"));
    lua_pushinteger(L, word[byte]);
    return 1;
}

// Scalars print as Lua would show them; tables, functions and the like do not print.
bool printable(lua_State *L, QString &text)
{
    switch (lua_type(L, 1)) {
    case LUA_TNUMBER:
    case LUA_TSTRING:
        text = macroText(L, 1);
        return true;
    case LUA_TBOOLEAN:
        text = lua_toboolean(L, 1) ? QStringLiteral("true") : QStringLiteral("false");
        return true;
    case LUA_TNIL:
    case LUA_TNONE:
        text = QStringLiteral("nil");
        return true;
    default:
        return false;
    }
}

}  // namespace

int l_HMIsuspendlink(lua_State *L)
{
    switchLink(L, &HmiToMacroInterface::suspendComm, &HmiToMacroInterface::suspendCommWithStation);
    return 0;
}

int l_HMIstartlink(lua_State *L)
{
    switchLink(L, &HmiToMacroInterface::startCom, &HmiToMacroInterface::startComWithStation);
    return 0;
}

int l_HMIhibyte(lua_State *L)
{
    return pushWordByte(L, 1);
}

int l_HMIlobyte(lua_State *L)
{
    return pushWordByte(L, 0);
}

int l_HMIprint(lua_State *L)
{
    QString text;
    if (printable(L, text))
        // Qt's default handler writes the line to stderr in the local 8-bit encoding.
        qDebug().noquote() << text;
    return 0;
}

int l_HMIrunScriptFromId(lua_State *L)
{
    if (lua_type(L, 1) == LUA_TNUMBER)
        Macro::getInstance()->runFromLua(macroInt(L, 1));
    return 0;
}

int l_HMIrunScripText(lua_State *L)
{
    if (lua_type(L, 1) == LUA_TSTRING)
        Macro::getInstance()->runFromLua(macroText(L, 1));
    return 0;
}

int l_HMIgetLinkNum(lua_State *L)
{
    lua_pushinteger(L, -1);
    return 1;
}

}  // namespace lumbra
