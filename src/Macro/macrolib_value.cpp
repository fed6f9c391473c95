// setdata / getdata: device values by link name or link index.
#include "HmiToMacroInterface.h"
#include "macrolib.h"
#include "macrolib_p.h"
#include "macrovalue.h"

#include "Macro.h"
#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "lumbra/driver.h"

#include <climits>

namespace lumbra {

namespace {

// Encoded array data beyond this is dropped; a script's table may be huge.
const int kMaxArrayBytes = 4096;
const int kMaxStringBytes = 128;

// Where a value lives, as the script named it.
struct Target {
    bool byIndex = false;
    int linkId = 0;
    QString link;
    QString reg;
    QString addr;
    int station = 0;
    int index = -1;
};

// Arguments 1-3 are link, register and address; the station's position
// differs between setdata and getdata.
Target readTarget(lua_State *L, int stationArg)
{
    Target t;
    t.byIndex = lua_type(L, 1) == LUA_TNUMBER;
    if (t.byIndex)
        t.linkId = macroInt(L, 1);
    else
        t.link = macroText(L, 1);
    t.reg = macroText(L, 2);
    t.addr = lua_type(L, 3) == LUA_TNUMBER ? QString::number(macroInt(L, 3)) : macroText(L, 3);
    t.station = macroInt(L, stationArg);
    return t;
}

// Resolves the link-local index; false when the link manager knows no such address.
bool resolve(HmiToMacroInterface *hmi, Target &t, MacroType family)
{
    const int mode = family == MacroType::Bit ? 0 : 1;
    t.index = t.byIndex ? hmi->getIndexFromAddr(t.linkId, t.reg, t.addr, t.station, mode)
                        : hmi->getIndexFromAddr(t.link, t.reg, t.addr, t.station, mode);
    if (t.index < 0)
        zlog_debug(g_zlog, "macro address not found link:%s reg:%s addr:%s",
                   (t.byIndex ? QString::number(t.linkId) : t.link).toUtf8().constData(),
                   t.reg.toUtf8().constData(), t.addr.toUtf8().constData());
    return t.index >= 0;
}

// The byte order the driver applies follows what the script says the value is.
int kindOf(const QString &type)
{
    switch (macroTypeOf(type)) {
    case MacroType::Bit: return LUMBRA_KIND_BIT;
    case MacroType::Word: return LUMBRA_KIND_16BIT;
    case MacroType::DWord: return LUMBRA_KIND_32BIT;
    case MacroType::String: return LUMBRA_KIND_STRING;
    default: return LUMBRA_KIND_RAW;
    }
}

int write(HmiToMacroInterface *hmi, const Target &t, const QString &type, int units, const QByteArray &data,
          QString *why)
{
    const uchar *bytes = reinterpret_cast<const uchar *>(data.constData());
    const int kind = kindOf(type);
    return t.byIndex ? hmi->setCommValueNumber(t.linkId, t.reg, t.index, t.station, units, bytes, data.size(), kind, why)
                     : hmi->setCommValueNumber(t.link, t.reg, t.index, t.station, units, bytes, data.size(), kind, why);
}

// A device address that no script text names (a computed address, a link
// held in a variable) joins the link's poll plan when a script first reads
// it, and that first read waits for the link to fetch it.
int firstReadWait(lua_State *L, const Target &t, const QString &type, int units)
{
    if (communication::getLocalIndex(t.reg) != -1)
        return 0;
    AddressInfo a;
    a.link = t.byIndex ? HmiToMacroInterface::linkName(t.linkId) : t.link;
    a.reg = t.reg;
    a.addr = t.addr;
    a.index = t.index;
    a.station = t.station;
    a.length = units;
    a.type = macroTypeIndex(type);
    return Macro::getInstance()->learnAddress(a) ? macroWaitMs(L, INT_MAX) : 0;
}

// 1 with a value the device sent on its last read; otherwise *why says what
// stands in the way.
int read(lua_State *L, HmiToMacroInterface *hmi, const Target &t, const QString &type, int units, QByteArray &data,
         QString *why)
{
    uchar *bytes = reinterpret_cast<uchar *>(data.data());
    const int kind = kindOf(type);
    const int waitMs = firstReadWait(L, t, type, units);
    int quality = LUMBRA_QUALITY_NOT_READ;
    const int size = data.size();
    const int rc = t.byIndex ? hmi->getCommValueNumber(t.linkId, t.reg, t.index, t.station, units, bytes, size, kind,
                                                       &quality, waitMs)
                             : hmi->getCommValueNumber(t.link, t.reg, t.index, t.station, units, bytes, size, kind,
                                                       &quality, waitMs);
    if (rc == 1)
        return 1;
    switch (rc < 0 ? -1 : quality) {
    case LUMBRA_QUALITY_NO_REPLY: *why = QStringLiteral("no reply"); break;
    case LUMBRA_QUALITY_REFUSED: *why = QStringLiteral("refused by the device"); break;
    case LUMBRA_QUALITY_NOT_READ: *why = QStringLiteral("not read yet"); break;
    default: *why = QStringLiteral("no such address"); break;
    }
    return rc < 0 ? rc : 0;
}

int pushFalse(lua_State *L, const QString &why)
{
    lua_pushboolean(L, 0);
    lua_pushstring(L, why.toUtf8().constData());
    return 2;
}

// A read that has no value the device sent gives nil and the reason, never
// a number the device did not send.
int pushFailure(lua_State *L, const QString &why)
{
    lua_pushnil(L);
    lua_pushstring(L, why.toUtf8().constData());
    return 2;
}

// Room for n elements: a byte per bit cell, whole 16-bit words for the rest.
int bufferBytes(const QString &type, int n)
{
    return macroTypeOf(type) == MacroType::Bit ? n : 2 * macroUnits(type, n);
}

int maxElements(const QString &type)
{
    return kMaxArrayBytes / macroElementBytes(type);
}

QByteArray encodeTable(lua_State *L, int arg, const QString &type, int &n)
{
    n = qMin(static_cast<int>(lua_rawlen(L, arg)), maxElements(type));
    const int width = macroElementBytes(type);
    QByteArray data(bufferBytes(type, n), '\0');
    for (int i = 0; i < n; ++i) {
        lua_rawgeti(L, arg, i + 1);
        ValueToArray(reinterpret_cast<uchar *>(data.data()) + i * width, macroNumber(L, -1), type);
        lua_pop(L, 1);
    }
    return data;
}

QByteArray stringBytes(lua_State *L, int arg)
{
    QByteArray data = macroBytes(L, arg).left(kMaxStringBytes);
    if (data.size() % 2)
        data.append('\0');
    return data;
}

// The bytes to write and the units they span; empty when there is nothing.
QByteArray encodeValue(lua_State *L, const QString &type, int &units)
{
    if (macroTypeOf(type) == MacroType::String) {
        const int arg = lua_type(L, 6) == LUA_TSTRING ? 6 : 4;
        QByteArray data = lua_type(L, arg) == LUA_TSTRING ? stringBytes(L, arg) : QByteArray();
        units = data.size() / 2;
        return data;
    }
    int n = 1;
    QByteArray data;
    if (lua_type(L, 6) == LUA_TTABLE) {
        data = encodeTable(L, 6, type, n);
    } else {
        data = QByteArray(bufferBytes(type, 1), '\0');
        ValueToArray(reinterpret_cast<uchar *>(data.data()), macroNumber(L, 4), type);
    }
    units = macroUnits(type, n);
    return data;
}

QString typeArg(lua_State *L, int arg, const char *function)
{
    const QString type = arg > 0 ? macroText(L, arg).trimmed() : QString();
    if (macroTypeOf(type) == MacroType::Unknown)
        zlog_error(g_zlog, "%s unknown data type:%s", function, type.toUtf8().constData());
    return type;
}

int pushTable(lua_State *L, HmiToMacroInterface *hmi, const Target &t, const QString &type)
{
    const int n = qBound(1, static_cast<int>(lua_rawlen(L, 5)), maxElements(type));
    QByteArray data(bufferBytes(type, n), '\0');
    QString why;
    if (read(L, hmi, t, type, macroUnits(type, n), data, &why) != 1)
        return pushFailure(L, why);
    const int width = macroElementBytes(type);
    for (int i = 0; i < n; ++i) {
        double value = 0;
        ArrayToValue(reinterpret_cast<const uchar *>(data.constData()) + i * width, value, type);
        lua_pushnumber(L, value);
        lua_rawseti(L, 5, i + 1);
    }
    lua_pushinteger(L, n);
    return 1;
}

int pushString(lua_State *L, HmiToMacroInterface *hmi, const Target &t, const QString &type)
{
    const int bytes = qBound(0, macroInt(L, 5), kMaxArrayBytes);
    const int units = (bytes + 1) / 2;
    QByteArray data(2 * units, '\0');
    if (units == 0) {
        lua_pushliteral(L, "");
        return 1;
    }
    QString why;
    if (read(L, hmi, t, type, units, data, &why) != 1)
        return pushFailure(L, why);
    data.truncate(bytes);
    const int end = data.indexOf('\0');
    lua_pushlstring(L, data.constData(), end < 0 ? data.size() : end);
    return 1;
}

int pushScalar(lua_State *L, HmiToMacroInterface *hmi, const Target &t, const QString &type)
{
    QByteArray data(bufferBytes(type, 1), '\0');
    QString why;
    if (read(L, hmi, t, type, macroUnits(type, 1), data, &why) != 1)
        return pushFailure(L, why);
    double value = 0;
    ArrayToValue(reinterpret_cast<const uchar *>(data.constData()), value, type);
    lua_pushnumber(L, value);
    return 1;
}

}  // namespace

// true once the device confirmed the write; false and the reason otherwise.
int l_HMIsetData(lua_State *L)
{
    macroEnter(L);
    const QString type = typeArg(L, 7, "setdata");
    const MacroType family = macroTypeOf(type);
    HmiToMacroInterface *hmi = macroHmi();
    Target t = readTarget(L, 5);
    if (family == MacroType::Unknown)
        return pushFalse(L, QStringLiteral("unknown data type"));
    if (!resolve(hmi, t, family))
        return pushFalse(L, QStringLiteral("no such address"));
    int units = 0;
    const QByteArray data = encodeValue(L, type, units);
    if (units <= 0)
        return pushFalse(L, QStringLiteral("nothing to write"));
    QString why;
    if (write(hmi, t, type, units, data, &why) < 0)
        return pushFalse(L, why);
    lua_pushboolean(L, 1);
    return 1;
}

int l_HMIgetData(lua_State *L)
{
    macroEnter(L);
    const QString type = typeArg(L, lua_gettop(L), "getdata");
    const MacroType family = macroTypeOf(type);
    HmiToMacroInterface *hmi = macroHmi();
    Target t = readTarget(L, 4);
    if (family == MacroType::Unknown)
        return pushFailure(L, QStringLiteral("unknown data type"));
    if (!resolve(hmi, t, family))
        return pushFailure(L, QStringLiteral("no such address"));
    if (family == MacroType::String)
        return pushString(L, hmi, t, type);
    if (lua_type(L, 5) == LUA_TTABLE)
        return pushTable(L, hmi, t, type);
    return pushScalar(L, hmi, t, type);
}

}  // namespace lumbra
