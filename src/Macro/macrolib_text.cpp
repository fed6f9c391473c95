// Text re-encoding between GBK and UTF-8, and check values over byte tables.
#include "macrolib.h"
#include "macrolib_p.h"

#include "generalFunc/globals.h"

#include <QTextCodec>

#include <cstdint>

namespace lumbra {

namespace {

const int kTextBytes = 1024;

// Lengths from 1024 up convert nothing: scripts rely on that limit.
int textLength(lua_State *L)
{
    const int n = macroInt(L, 2);
    return n > kTextBytes - 1 ? kTextBytes : n;
}

// Re-encodes the table's first n % 1024 bytes in place and gives the new
// byte count; elements past it keep their old values.
int convertTable(lua_State *L, int n, const char *from, const char *to)
{
    QByteArray in = macroTableBytes(L, 1, qMax(0, n % kTextBytes));
    // The bytes are read as a zero-ended text, as panels hand them over.
    const int end = in.indexOf('\0');
    if (end >= 0)
        in.truncate(end);
    QTextCodec *source = QTextCodec::codecForName(from);
    QTextCodec *target = QTextCodec::codecForName(to);
    if (!source || !target) {
        zlog_error(g_zlog, "text codec missing:%s %s", from, to);
        return 0;
    }
    const QByteArray out = target->fromUnicode(source->toUnicode(in));
    macroStoreBytes(L, 1, out);
    return out.size();
}

uint32_t byteSum(const QByteArray &bytes)
{
    uint32_t sum = 0;
    for (char c : bytes)
        sum += static_cast<uchar>(c);
    return sum;
}

uint32_t sum8(const QByteArray &bytes)
{
    return byteSum(bytes) & 0xFF;
}

uint32_t sum16(const QByteArray &bytes)
{
    return byteSum(bytes) & 0xFFFF;
}

uint32_t xor8(const QByteArray &bytes)
{
    uint32_t x = 0;
    for (char c : bytes)
        x ^= static_cast<uchar>(c);
    return x;
}

// Modbus ASCII: the two's complement of the byte sum.
uint32_t lrc(const QByteArray &bytes)
{
    return (0x100 - byteSum(bytes)) & 0xFF;
}

uint32_t crcModbus(const QByteArray &bytes)
{
    uint16_t crc = 0xFFFF;
    for (char c : bytes) {
        crc ^= static_cast<uchar>(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : static_cast<uint16_t>(crc >> 1);
    }
    return crc;
}

// CRC-16/CCITT-FALSE.
uint32_t crcCcitt(const QByteArray &bytes)
{
    uint16_t crc = 0xFFFF;
    for (char c : bytes) {
        crc ^= static_cast<uint16_t>(static_cast<uchar>(c) << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000) ? static_cast<uint16_t>((crc << 1) ^ 0x1021) : static_cast<uint16_t>(crc << 1);
    }
    return crc;
}

struct CheckMethod {
    const char *name;
    uint32_t (*compute)(const QByteArray &);
};

const CheckMethod kMethods[] = {
    {"sum", sum8},         {"sum16", sum16},     {"xor", xor8},
    {"lrc", lrc},          {"crc16", crcModbus}, {"modbus", crcModbus},
    {"crc16ccitt", crcCcitt},
};

}  // namespace

int l_HMIgbk2utf(lua_State *L)
{
    if (lua_type(L, 1) != LUA_TTABLE) {
        lua_pushinteger(L, 0);
        return 1;
    }
    // The input length comes back, not the converted one: scripts depend on it.
    const int n = textLength(L);
    convertTable(L, n, "gbk", "UTF-8");
    lua_pushinteger(L, n);
    return 1;
}

int l_HMIutf2gbk(lua_State *L)
{
    if (lua_type(L, 1) != LUA_TTABLE) {
        lua_pushinteger(L, 0);
        return 1;
    }
    lua_pushinteger(L, convertTable(L, textLength(L), "UTF-8", "gbk"));
    return 1;
}

int l_HMIcheckMethod(lua_State *L)
{
    const QString method = macroText(L, 3).trimmed().toLower();
    for (const CheckMethod &m : kMethods) {
        if (method == QLatin1String(m.name)) {
            lua_pushinteger(L, m.compute(macroTableBytes(L, 1, macroInt(L, 2))));
            return 1;
        }
    }
    zlog_error(g_zlog, "checkMethod unknown method:%s", method.toUtf8().constData());
    lua_pushinteger(L, -1);
    return 1;
}

}  // namespace lumbra
