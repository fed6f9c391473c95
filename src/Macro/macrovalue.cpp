#include "macrovalue.h"

#include "macrolib_p.h"

#include <cstdint>
#include <cstring>

namespace lumbra {

namespace {

enum class Coding { Bit, Signed, Unsigned, Bcd, Float, Text };

struct TypeSpec {
    const char *name;
    MacroType family;
    int bytes;
    Coding coding;
};

const TypeSpec kTypes[] = {
    {"DATA_TYPE_BIT", MacroType::Bit, 1, Coding::Bit},
    {"DATA_TYPE_BB", MacroType::Byte, 1, Coding::Signed},
    {"DATA_TYPE_BUB", MacroType::Byte, 1, Coding::Unsigned},
    {"DATA_TYPE_BD", MacroType::Byte, 1, Coding::Bcd},
    {"DATA_TYPE_WB", MacroType::Word, 2, Coding::Signed},
    {"DATA_TYPE_WUB", MacroType::Word, 2, Coding::Unsigned},
    {"DATA_TYPE_WD", MacroType::Word, 2, Coding::Bcd},
    {"DATA_TYPE_DB", MacroType::DWord, 4, Coding::Signed},
    {"DATA_TYPE_DUB", MacroType::DWord, 4, Coding::Unsigned},
    {"DATA_TYPE_DD", MacroType::DWord, 4, Coding::Bcd},
    {"DATA_TYPE_DF", MacroType::DWord, 4, Coding::Float},
    {"DATA_TYPE_STR_UNI", MacroType::String, 1, Coding::Text},
    {"DATA_TYPE_STR_ASC", MacroType::String, 1, Coding::Text},
};

const TypeSpec *specOf(const QString &type)
{
    const QString name = type.trimmed();
    for (const TypeSpec &spec : kTypes)
        if (name == QLatin1String(spec.name))
            return &spec;
    return nullptr;
}

// Reads and writes the low `bytes` bytes of an unsigned value in native order,
// whatever the width, without unaligned access.
uint32_t loadUnsigned(const unsigned char *src, int bytes)
{
    switch (bytes) {
    case 1:
        return src[0];
    case 2: {
        uint16_t v;
        std::memcpy(&v, src, sizeof v);
        return v;
    }
    default: {
        uint32_t v;
        std::memcpy(&v, src, sizeof v);
        return v;
    }
    }
}

void storeUnsigned(unsigned char *dst, uint32_t value, int bytes)
{
    if (bytes == 1) {
        dst[0] = static_cast<unsigned char>(value);
    } else if (bytes == 2) {
        const uint16_t v = static_cast<uint16_t>(value);
        std::memcpy(dst, &v, sizeof v);
    } else {
        std::memcpy(dst, &value, sizeof value);
    }
}

double loadSigned(const unsigned char *src, int bytes)
{
    const uint32_t raw = loadUnsigned(src, bytes);
    if (bytes == 1)
        return static_cast<int8_t>(raw);
    if (bytes == 2)
        return static_cast<int16_t>(raw);
    return static_cast<int32_t>(raw);
}

// Decimal digits as hex digits, so 45 becomes 0x45; only the digits that fit
// the width are kept, and the sign is dropped since BCD has none.
uint32_t toBcd(qint64 value, int bytes)
{
    quint64 magnitude = value < 0 ? 0 - static_cast<quint64>(value) : static_cast<quint64>(value);
    uint32_t out = 0;
    for (int shift = 0; shift < bytes * 8; shift += 4) {
        out |= static_cast<uint32_t>(magnitude % 10) << shift;
        magnitude /= 10;
    }
    return out;
}

// A nibble above 9 is no BCD; the value then reads 0, as the gateway shows it.
double fromBcd(uint32_t raw, int bytes)
{
    double value = 0;
    double weight = 1;
    for (int shift = 0; shift < bytes * 8; shift += 4) {
        const uint32_t digit = (raw >> shift) & 0xF;
        if (digit > 9)
            return 0;
        value += digit * weight;
        weight *= 10;
    }
    return value;
}

}  // namespace

int macroTypeIndex(const QString &type)
{
    const TypeSpec *spec = specOf(type);
    return spec ? static_cast<int>(spec - kTypes) : 0;
}

MacroType macroTypeOf(const QString &type)
{
    const TypeSpec *spec = specOf(type);
    return spec ? spec->family : MacroType::Unknown;
}

int macroElementBytes(const QString &type)
{
    const TypeSpec *spec = specOf(type);
    return spec ? spec->bytes : 0;
}

int macroUnits(const QString &type, int n)
{
    if (n <= 0)
        return 0;
    switch (macroTypeOf(type)) {
    case MacroType::Bit:
    case MacroType::Word:
        return n;
    case MacroType::Byte:
    case MacroType::String:
        return (n + 1) / 2;
    case MacroType::DWord:
        return 2 * n;
    default:
        return 0;
    }
}

bool ValueToArray(unsigned char *bytes, double value, const QString &type)
{
    const TypeSpec *spec = specOf(type);
    if (!spec || spec->coding == Coding::Text || !bytes)
        return false;
    const qint64 whole = macroTruncate<qint64>(value);
    switch (spec->coding) {
    case Coding::Bit:
        bytes[0] = whole != 0 ? 1 : 0;
        break;
    case Coding::Float: {
        const float f = static_cast<float>(value);
        std::memcpy(bytes, &f, sizeof f);
        break;
    }
    case Coding::Bcd:
        storeUnsigned(bytes, toBcd(whole, spec->bytes), spec->bytes);
        break;
    default:
        // Two's complement narrowing: -1 as a word is 0xFFFF.
        storeUnsigned(bytes, static_cast<uint32_t>(static_cast<quint64>(whole)), spec->bytes);
        break;
    }
    return true;
}

bool ArrayToValue(const unsigned char *bytes, double &value, const QString &type)
{
    value = 0;
    const TypeSpec *spec = specOf(type);
    if (!spec || spec->coding == Coding::Text || !bytes)
        return false;
    switch (spec->coding) {
    case Coding::Bit:
        value = bytes[0] != 0 ? 1 : 0;
        break;
    case Coding::Float: {
        float f;
        std::memcpy(&f, bytes, sizeof f);
        value = f;
        break;
    }
    case Coding::Bcd:
        value = fromBcd(loadUnsigned(bytes, spec->bytes), spec->bytes);
        break;
    case Coding::Signed:
        value = loadSigned(bytes, spec->bytes);
        break;
    default:
        value = loadUnsigned(bytes, spec->bytes);
        break;
    }
    return true;
}

}  // namespace lumbra
