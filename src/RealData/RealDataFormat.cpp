// Turning raw point values into the texts the cloud sees, and the linear
// scaling between device and display values.
#include "RealData.h"

#include "generalFunc/generalFunc.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace {

bool isIntegerType(int type)
{
    return type >= VALUE_U16 && type <= VALUE_S32;
}

double decimalFactor(const RealData::DataCfg_t &cfg)
{
    return cfg.decimalDigits >= 1 && isIntegerType(cfg.dataType) ? std::pow(10.0, cfg.decimalDigits) : 1.0;
}

// Qt's number formatting goes through the locale machinery; plain integers
// and integers with a fixed number of decimals, the commonest point values,
// need none of it. Both write into text, which has kMaxAsciiText bytes.
int integer(qint64 value, char *text)
{
    return static_cast<int>(std::to_chars(text, text + RealData::kMaxAsciiText, value).ptr - text);
}

// value / 10^decimals with that many decimals, exactly as the floating-point
// route would print it (the division's error is far below half the last
// place for 32-bit values), without it.
int shifted(qint64 value, int decimals, char *text)
{
    char *w = text;
    if (value < 0)
        *w++ = '-';
    const quint64 magnitude = value < 0 ? 0 - static_cast<quint64>(value) : static_cast<quint64>(value);
    quint64 scale = 1;
    for (int i = 0; i < decimals; ++i)
        scale *= 10;
    w = std::to_chars(w, text + RealData::kMaxAsciiText, magnitude / scale).ptr;
    *w++ = '.';
    char fraction[24];
    const char *end = std::to_chars(fraction, fraction + sizeof fraction, magnitude % scale).ptr;
    const int digits = static_cast<int>(end - fraction);
    for (int i = digits; i < decimals; ++i)
        *w++ = '0';
    std::memcpy(w, fraction, static_cast<size_t>(digits));
    return static_cast<int>(w + digits - text);
}

QString fixed(double value, int decimals)
{
    return QString::number(value, 'f', decimals < 0 ? 0 : decimals);
}

}  // namespace

double RealData::setZoom(const DataCfg_t &cfg, double raw)
{
    double result = raw;
    if (cfg.dealType != 0)
        result = raw * cfg.zoomRatio.toDouble() + cfg.zoomOffset.toDouble();
    return result / decimalFactor(cfg);
}

double RealData::setWriteZoom(const DataCfg_t &cfg, double value)
{
    double result = value * decimalFactor(cfg);
    if (cfg.dealType == 0)
        return result;
    double k = cfg.zoomRatio.toDouble();
    // A ratio of 0 has no inverse; writing the offset-free value is the
    // least surprising answer.
    return k == 0 ? result - cfg.zoomOffset.toDouble() : (result - cfg.zoomOffset.toDouble()) / k;
}

int RealData::asciiText(const DataCfg_t &cfg, const uchar *raw, int rawSize, char *text)
{
    double number = 0;
    switch (cfg.dataType) {
    case VALUE_BIT:
        text[0] = rawSize >= 1 && raw[0] ? '1' : '0';
        return 1;
    case VALUE_U16:
    case VALUE_U32:
    case VALUE_S16:
    case VALUE_S32:
        if (cfg.dealType != 0 || cfg.decimalDigits > 9 || !unitTool::rawNumber(raw, rawSize, cfg.dataType, number))
            return -1;
        if (cfg.decimalDigits <= 0)
            return integer(static_cast<qint64>(number), text);
        return shifted(static_cast<qint64>(number), cfg.decimalDigits, text);
    default:
        return -1;
    }
}

QString RealData::formatValue(const DataCfg_t &cfg, const uchar *raw, int rawSize, const QString &old)
{
    char ascii[kMaxAsciiText];
    const int n = asciiText(cfg, raw, rawSize, ascii);
    if (n >= 0)
        return QString::fromLatin1(ascii, n);
    double number = 0;
    switch (cfg.dataType) {
    case VALUE_U16:
    case VALUE_U32:
    case VALUE_S16:
    case VALUE_S32:
        if (!unitTool::rawNumber(raw, rawSize, cfg.dataType, number))
            return old;
        return fixed(setZoom(cfg, number), cfg.decimalDigits);
    case VALUE_BCD16:
    case VALUE_BCD32:
        return unitTool::value2str(raw, rawSize, cfg.dataType, 0);
    case VALUE_FLOAT:
        if (!unitTool::rawNumber(raw, rawSize, cfg.dataType, number))
            return old;
        return fixed(cfg.dealType != 0 ? setZoom(cfg, number) : number, cfg.decimalDigits);
    case VALUE_STRING:
        return unitTool::value2str(raw, qMin(rawSize, cfg.addr.length * 2), VALUE_STRING, 0);
    default:
        return old;
    }
}
