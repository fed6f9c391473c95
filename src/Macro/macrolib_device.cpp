// Raw bytes on free-protocol links: readdevice / writedevice on configured
// links, initCommunication / sendData / recvData / closeCommunication on
// links scripts open.
#include "HmiToMacroInterface.h"
#include "macrolib.h"
#include "macrolib_p.h"

#include "generalFunc/globals.h"

#include <cctype>
#include <climits>

namespace lumbra {

namespace {

const int kMaxDeviceBytes = 2048;

// "12 ab 0F" → 0x12 0xAB 0x0F; false on an odd count or a non-hex character.
bool decodeHex(const QByteArray &text, QByteArray &out)
{
    QByteArray digits = text;
    digits.replace(' ', QByteArray());
    for (char c : digits)
        if (!isxdigit(static_cast<unsigned char>(c)))
            return false;
    if (digits.size() % 2)
        return false;
    out = QByteArray::fromHex(digits);
    return true;
}

// The bytes a script hands over: a table of byte values or a string, the
// string read as hex pairs for "hex" and as it stands for "asc" or no format.
// length <= 0 takes everything; a longer one is cut to what there is.
bool scriptBytes(lua_State *L, int arg, int length, const QString &format, const char *function,
                 QByteArray &out)
{
    const QString fmt = format.trimmed().toLower();
    if (!fmt.isEmpty() && fmt != QLatin1String("hex") && fmt != QLatin1String("asc")) {
        zlog_error(g_zlog, "%s unknown format:%s", function, format.toUtf8().constData());
        return false;
    }
    if (lua_type(L, arg) == LUA_TTABLE) {
        out = macroTableBytes(L, arg, length > 0 ? length : INT_MAX);
    } else if (fmt == QLatin1String("hex")) {
        if (!decodeHex(macroBytes(L, arg), out)) {
            zlog_error(g_zlog, "%s bad hex data", function);
            return false;
        }
    } else {
        out = macroBytes(L, arg);
    }
    if (length > 0)
        out.truncate(length);
    return true;
}

// Pushes what a send returned: -1 when the data was malformed, 0 when there
// was nothing to send.
template <typename Send>
int pushSent(lua_State *L, int length, const QString &format, const char *function, Send send)
{
    QByteArray bytes;
    if (!scriptBytes(L, 2, length, format, function, bytes))
        lua_pushinteger(L, -1);
    else
        lua_pushinteger(L, bytes.isEmpty() ? 0 : send(bytes));
    return 1;
}

// n is the link's result: the byte count, or a negative status.
int pushReceived(lua_State *L, int tableArg, const QByteArray &data, int n)
{
    const int count = qBound(0, n, data.size());
    if (tableArg > 0 && lua_type(L, tableArg) == LUA_TTABLE) {
        macroStoreBytes(L, tableArg, data.left(count));
        lua_pushinteger(L, n);
    } else {
        lua_pushlstring(L, data.constData(), count);
    }
    return 1;
}

int lengthArg(lua_State *L, int arg)
{
    return qBound(0, macroInt(L, arg), kMaxDeviceBytes);
}

}  // namespace

int l_HMIreaddevice(lua_State *L)
{
    macroEnter(L);
    QByteArray data(kMaxDeviceBytes, '\0');
    const int n = macroHmi()->readDeviceFromLinkid(macroInt(L, 1), reinterpret_cast<uchar *>(data.data()),
                                                   lengthArg(L, 2), macroWaitMs(L, macroInt(L, 3)));
    return pushReceived(L, 4, data, n);
}

int l_HMIwritedevice(lua_State *L)
{
    macroEnter(L);
    const int id = macroInt(L, 1);
    const int timeoutMs = macroInt(L, 4);
    return pushSent(L, macroInt(L, 3), macroText(L, 5), "writedevice", [&](const QByteArray &bytes) {
        return macroHmi()->writeDeviceFromLinkid(id, reinterpret_cast<const uchar *>(bytes.constData()),
                                                 bytes.size(), timeoutMs);
    });
}

int l_HMIinitCommunication(lua_State *L)
{
    QStringList parts = macroText(L, 1).split(',');
    for (QString &part : parts)
        part = part.trimmed();
    parts[0] = parts[0].toLower();
    int id = -1;
    if (parts[0] == QLatin1String("tcp") || parts[0] == QLatin1String("udp"))
        id = macroHmi()->initCommunicationNet(parts);
    else if (parts[0] == QLatin1String("can"))
        id = macroHmi()->initCommunicationCan(parts);
    else
        zlog_error(g_zlog, "initCommunication unknown kind:%s", parts[0].toUtf8().constData());
    lua_pushinteger(L, id);
    return 1;
}

int l_HMIsendData(lua_State *L)
{
    macroEnter(L);
    // The length may be left out: sendData(id, "0102", "hex").
    const bool formatThird = lua_type(L, 3) == LUA_TSTRING && !lua_isnumber(L, 3);
    const int id = macroInt(L, 1);
    const int length = formatThird ? 0 : macroInt(L, 3);
    const QString format = macroText(L, formatThird ? 3 : 4);
    return pushSent(L, length, format, "sendData",
                    [&](const QByteArray &bytes) { return macroHmi()->sendData(id, bytes); });
}

int l_HMIrecvData(lua_State *L)
{
    macroEnter(L);
    const int tableArg = lua_type(L, 2) == LUA_TTABLE ? 2 : 0;
    const int lenArg = tableArg ? 3 : 2;
    QByteArray data;
    const int n =
        macroHmi()->recvData(macroInt(L, 1), data, lengthArg(L, lenArg), macroWaitMs(L, macroInt(L, lenArg + 1)));
    return pushReceived(L, tableArg, data, n);
}

int l_HMIresetCommunication(lua_State *L)
{
    lua_pushinteger(L, macroHmi()->resetCommunication(macroInt(L, 1)));
    return 1;
}

int l_HMIstatusCommunication(lua_State *L)
{
    lua_pushinteger(L, macroHmi()->statusCommunication(macroInt(L, 1)));
    return 1;
}

// A script that opens a link per job must be able to give it back, or each
// job would cost a socket for the gateway's lifetime.
int l_HMIcloseCommunication(lua_State *L)
{
    lua_pushinteger(L, macroHmi()->closeCommunication(macroInt(L, 1)));
    return 1;
}

}  // namespace lumbra
