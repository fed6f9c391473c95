// The cloud's online edits of real-time points, and its writes of values to
// the devices behind them.
#include "MqttMsgEvent.h"

#include "IotToMqttComm.h"
#include "onlineset_p.h"

#include "RealData/RealData.h"
#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <cmath>
#include <cstring>
#include <limits>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "IotToMqttComm/MqttMsgEvent.cpp"

using lumbra::online::Operation;

namespace {

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

// The record of code, copied under the service's lock; false when unknown.
bool pointOf(int code, RealData::DataCfg_t *cfg)
{
    RealData *rd = RealData::getInstance();
    QMutexLocker lock(&rd->mutex());
    auto it = rd->codeDataMap().constFind(code);
    if (it == rd->codeDataMap().constEnd())
        return false;
    *cfg = it.value();
    return true;
}

bool putPoint(const QJsonObject &item, Operation op, QString *id)
{
    const RealData::DataCfg_t cfg = RealData::pointFromJson(item);
    *id = QString::number(cfg.code);
    RealData::DataCfg_t old;
    const bool renew = lumbra::online::isExternal(cfg.addr) || (pointOf(cfg.code, &old) &&
                                                                lumbra::online::isExternal(old.addr));
    RealData::getInstance()->DataCfgOpt(cfg.code, cfg, op == Operation::Add ? ADDR_ADD : ADDR_MODIFY);
    return renew;
}

bool removePoint(int code)
{
    RealData::DataCfg_t old;
    if (!pointOf(code, &old))
        return false;
    RealData::getInstance()->DataCfgOpt(code, old, ADDR_DELETE);
    return lumbra::online::isExternal(old.addr);
}

template <class T>
QByteArray nativeBytes(T value)
{
    QByteArray out(sizeof value, '\0');
    std::memcpy(out.data(), &value, sizeof value);
    return out;
}

// A scaled value as the device's signed integer, the fraction cut off;
// false when it does not fit. "0.29" at two decimals scales to
// 28.999999999999996, which the user meant as 29.
template <class T>
bool signedBytes(double value, QByteArray *out)
{
    const double nearest = std::round(value);
    const double whole = std::fabs(value - nearest) < 1e-6 ? nearest : std::trunc(value);
    if (!(whole >= std::numeric_limits<T>::min() && whole <= std::numeric_limits<T>::max()))
        return false;
    *out = nativeBytes(static_cast<T>(whole));
    return true;
}

bool floatBytes(double value, QByteArray *out)
{
    if (!(std::fabs(value) <= std::numeric_limits<float>::max()))
        return false;
    *out = nativeBytes(static_cast<float>(value));
    return true;
}

// The cloud writes the number the screen shows; the device holds it before
// scaling. False for NaN, infinity or a scale that has no inverse.
bool scaledValue(const RealData::DataCfg_t &cfg, const QString &text, double *value)
{
    bool ok = false;
    const double v = text.toDouble(&ok);
    if (!ok || !std::isfinite(v))
        return false;
    *value = RealData::setWriteZoom(cfg, v);
    return std::isfinite(*value);
}

template <class T>
bool unsignedBytes(const QString &text, int base, QByteArray *out)
{
    bool ok = false;
    const qulonglong v = text.toULongLong(&ok, base);
    if (!ok || v > std::numeric_limits<T>::max())
        return false;
    *out = nativeBytes(static_cast<T>(v));
    return true;
}

// A text the width of the point, cut or filled with zeros.
bool stringBytes(const RealData::DataCfg_t &cfg, const QString &text, QByteArray *out)
{
    const int size = 2 * cfg.addr.length;
    if (size <= 0)
        return false;
    *out = text.toUtf8().left(size);
    out->append(QByteArray(size - out->size(), '\0'));
    return true;
}

// The bytes that the link manager writes for text at the point; false when
// text is no value of the point's type.
bool deviceBytes(const RealData::DataCfg_t &cfg, const QString &text, QByteArray *out)
{
    const QString t = text.trimmed();
    double v = 0;
    switch (cfg.dataType) {
    case VALUE_BIT: {
        bool ok = false;
        const double bit = t.toDouble(&ok);
        *out = QByteArray(1, bit != 0 ? 1 : 0);
        return ok && !std::isnan(bit);
    }
    case VALUE_U16: return unsignedBytes<quint16>(t, 10, out);
    case VALUE_U32: return unsignedBytes<quint32>(t, 10, out);
    case VALUE_BCD16: return unsignedBytes<quint16>(t, 16, out);
    case VALUE_BCD32: return unsignedBytes<quint32>(t, 16, out);
    case VALUE_S16: return scaledValue(cfg, t, &v) && signedBytes<qint16>(v, out);
    case VALUE_S32: return scaledValue(cfg, t, &v) && signedBytes<qint32>(v, out);
    case VALUE_FLOAT: return scaledValue(cfg, t, &v) && floatBytes(v, out);
    case VALUE_STRING: return stringBytes(cfg, text, out);
    default: return false;
    }
}

// Writes one item of a write request; false when nothing was written.
bool writeItem(const QJsonObject &item)
{
    const QString codeText = lumbra::jsonText(item.value("data_code")).trimmed();
    const QString value = lumbra::jsonText(item.value("data_value"));
    bool ok = false;
    const int code = codeText.toInt(&ok);
    RealData::DataCfg_t cfg;
    if (!ok || !pointOf(code, &cfg)) {
        zlog_info(g_zlog, "WriteData code:%s unknown, skipped", local8(codeText).constData());
        return false;
    }
    QByteArray bytes;
    if (!deviceBytes(cfg, value, &bytes)) {
        zlog_error(g_zlog, "WriteData code:%d value:%s is no value of type %d, skipped", code,
                   local8(value).constData(), cfg.dataType);
        return false;
    }
    const int words = cfg.dataType == VALUE_BIT ? 1 : (bytes.size() + 1) / 2;
    QString why;
    const int rc = communication::getInstance()->setCommValue(
        cfg.addr.link, cfg.addr.reg, cfg.addr.index, cfg.addr.station, words,
        reinterpret_cast<const uchar *>(bytes.constData()), bytes.size(), communication::kindOf(cfg.dataType), &why);
    // A write the device did not confirm must not come back as the point's
    // new value.
    if (rc < 0) {
        zlog_warn(g_zlog, "WriteData code:%d link:%s reg:%s no:%s not written: %s", code,
                  local8(cfg.addr.link).constData(), local8(cfg.addr.reg).constData(),
                  local8(cfg.addr.addr).constData(), local8(why).constData());
        return false;
    }
    return true;
}

}  // namespace

int MqttMsgEvent::OnlineRTDSet(const QString &payload)
{
    QJsonObject msg;
    if (!lumbra::online::parseMessage(payload, &msg))
        return -1;
    RealData *rd = RealData::getInstance();
    // File first: a restart in the middle comes back with the change.
    rd->setConfigFile(payload);
    const lumbra::online::Target target{"/DevSend/OnlineRTDSetAck", "RTD", putPoint, removePoint};
    Operation op;
    const bool renew = lumbra::online::applyEdit(msg, target, &op);
    bool empty;
    {
        QMutexLocker lock(&rd->mutex());
        empty = rd->codeDataMap().isEmpty();
    }
    // Nothing to upload leaves the service as it is.
    if (empty)
        return 0;
    lumbra::online::renewExternal(renew, [rd] { return rd->externalAddr(); });
    if (!rd->isRunning())
        rd->start();
    return 0;
}

int MqttMsgEvent::WriteRTD(const QString &payload)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(payload.toUtf8(), &error);
    if (!doc.isArray()) {
        const QString why = error.error != QJsonParseError::NoError ? error.errorString() : "not an array";
        zlog_error(g_zlog, "json parse fail:%s", local8(why).constData());
        return -1;
    }
    QJsonArray report;
    for (const QJsonValue &v : doc.array()) {
        const QJsonObject item = v.toObject();
        if (writeItem(item))
            report.append(QJsonObject{{"code", item.value("data_code")}, {"data", item.value("data_value")}});
    }
    // The platform sees the new values now rather than at the next upload.
    if (report.isEmpty())
        return 0;
    const QJsonObject message{{"sn_code", deviceInfo::getInstance()->sn()}, {"data", report}};
    IotToMqttComm::getInstance()->MqttMsgSend("/DevSend/RTD",
                                              QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)),
                                              false, 0);
    return 0;
}
