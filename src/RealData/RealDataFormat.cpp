// Turning raw point values into the texts the cloud sees, and the linear
// scaling between device and display values.
#include "RealData.h"

#include "generalFunc/generalFunc.h"

#include <cmath>

namespace {

bool isIntegerType(int type)
{
    return type >= VALUE_U16 && type <= VALUE_S32;
}

double decimalFactor(const RealData::DataCfg_t &cfg)
{
    return cfg.decimalDigits >= 1 && isIntegerType(cfg.dataType) ? std::pow(10.0, cfg.decimalDigits) : 1.0;
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

QString RealData::formatValue(const DataCfg_t &cfg, const uchar *raw, int rawSize, const QString &old)
{
    double number = 0;
    switch (cfg.dataType) {
    case VALUE_BIT:
        return rawSize >= 1 && raw[0] ? QStringLiteral("1") : QStringLiteral("0");
    case VALUE_U16:
    case VALUE_U32:
    case VALUE_S16:
    case VALUE_S32:
        if (!unitTool::rawNumber(raw, rawSize, cfg.dataType, number))
            return old;
        if (cfg.dealType == 0 && cfg.decimalDigits == 0)
            return QString::number(static_cast<qint64>(number));
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
