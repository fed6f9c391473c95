#include "alarmvalue.h"

#include "generalFunc/generalFunc.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace alarmvalue {

namespace {

template <typename T>
T load(const uchar *raw)
{
    T v;
    std::memcpy(&v, raw, sizeof v);  // link buffers carry no alignment promise
    return v;
}

// Floats compare with three decimals. The product stays in float on purpose:
// 1.234f * 1000 is 1234 there but 1233.99997 in double, and the limit must
// meet the value the way the device shows it.
qint64 scaledFloat(float f)
{
    const float scaled = f * 1000.0f;
    if (std::isnan(scaled))
        return 0;
    // A device may hand out anything; casting an out-of-range float is undefined.
    const float bound = 9.2e18f;
    if (scaled >= bound)
        return std::numeric_limits<qint64>::max();
    if (scaled <= -bound)
        return std::numeric_limits<qint64>::min();
    return static_cast<qint64>(scaled);
}

bool isBcd(int dataType)
{
    return dataType == VALUE_BCD16 || dataType == VALUE_BCD32;
}

}  // namespace

qint64 wordValue(int dataType, const uchar *raw)
{
    switch (dataType) {
    case VALUE_U16:
    case VALUE_U32:  // only the low word, as the field boxes have always compared it
        return load<quint16>(raw);
    case VALUE_S16:
        return load<qint16>(raw);
    case VALUE_S32:
        return load<qint32>(raw);
    case VALUE_BCD16:
    case VALUE_BCD32:
        return load<quint32>(raw);
    case VALUE_FLOAT:
        return scaledFloat(load<float>(raw));
    default:
        return 0;
    }
}

qint64 limitValue(int dataType, const QString &text)
{
    // A limit that does not parse is 0, as with every lenient config value.
    switch (dataType) {
    case VALUE_U16:
    case VALUE_U32:
        return text.toUInt();
    case VALUE_S16:
        return text.toShort();
    case VALUE_S32:
        return text.toInt();
    case VALUE_BCD16:
    case VALUE_BCD32:
        return text.toUInt(nullptr, 16);
    case VALUE_FLOAT:
        return scaledFloat(text.toFloat());
    default:
        return text.toLongLong();
    }
}

QString valueText(int dataType, const uchar *raw)
{
    if (dataType == VALUE_FLOAT)
        return QString::number(load<float>(raw), 'f', 3);
    if (isBcd(dataType)) {
        const QString hex = QString::number(load<quint32>(raw), 16);
        for (const QChar c : hex)
            if (!c.isDigit())
                return QStringLiteral("null");
        return hex;
    }
    return QString::number(wordValue(dataType, raw));
}

bool isWordCode(int code)
{
    return code >= 4 && code <= 10;
}

bool wordCondition(int code, qint64 value, qint64 limit, qint64 min, qint64 max)
{
    switch (code) {
    case 4: return value < limit;
    case 5: return value > limit;
    case 6: return value <= limit;
    case 7: return value >= limit;
    case 8: return value == limit;
    case 9: return min < value && value < max;
    case 10: return value > max || value < min;
    default: return false;
    }
}

}  // namespace alarmvalue
