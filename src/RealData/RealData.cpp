#include "RealData.h"

#include "Outbox/Outbox.h"
#include "device_comm/addressjson.h"
#include "device_comm/communication.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/configfile.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QJsonArray>
#include <QJsonDocument>

using lumbra::jsonBool;
using lumbra::jsonInt;
using lumbra::jsonText;

namespace {

const char kConfigPath[] = "./iotRunTime/RealTimeConfiguration.json";
const lumbra::ConfigFileTexts kFileTexts{"Real data config file no such", "Real data config file open fail",
                                         "Real data config parse fail"};
const int kMaxTotalDigits = 128;
const int kTickMs = 1000;

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

}  // namespace

RealData *RealData::getInstance()
{
    static RealData instance;
    return &instance;
}

// A static instance outlives main(); its thread must be gone by then.
RealData::~RealData()
{
    stop();
}

bool RealData::loadConfig(QJsonObject *root) const
{
    return lumbra::readConfigObject(kConfigPath, kFileTexts, root);
}

void RealData::readSettings(const QJsonObject &root)
{
    m_uploadFunState = jsonBool(root.value("upload_func_state"));
    m_globalUploadSetting = jsonBool(root.value("global_upload_setting"));
    m_uploadTime = jsonInt(root.value("global_upload_time"));
    m_valueChange = jsonBool(root.value("global_value_change_setting"));
    m_compressed = jsonBool(root.value("compressed"));
    zlog_debug(g_zlog, "init upload_state: %s global_upload_time: %d global_value_change_setting: %s compressed: %s",
               m_uploadFunState ? "true" : "false", m_uploadTime.load(), m_valueChange ? "true" : "false",
               m_compressed ? "true" : "false");
}

RealData::DataCfg_t RealData::pointFromJson(const QJsonObject &item)
{
    DataCfg_t cfg;
    cfg.code = jsonInt(item.value("data_code"));
    cfg.name = jsonText(item.value("data_name"));
    cfg.dataType = jsonInt(item.value("data_type"));
    cfg.displayType = jsonInt(item.value("display_type"));
    cfg.writeable = jsonInt(item.value("data_writeable"));
    cfg.maxValue = jsonText(item.value("data_max"));
    cfg.minValue = jsonText(item.value("data_min"));
    cfg.totalDigits = qBound(0, jsonInt(item.value("data_totalDigits")), kMaxTotalDigits);
    cfg.decimalDigits = jsonInt(item.value("data_devimalDigits"));
    cfg.dealType = jsonInt(item.value("data_deal_type"));
    cfg.zoomRatio = jsonText(item.value("zoom_ratio"));
    cfg.zoomOffset = jsonText(item.value("zoom_offset"));
    cfg.addr = lumbra::addressFromJson(item.value("data_readAddress").toObject(), cfg.dataType, cfg.totalDigits);
    return cfg;
}

void RealData::init()
{
    if (load() && !isRunning())
        start();
}

bool RealData::load()
{
    zlog_info(g_zlog, "RealData init start");
    {
        QMutexLocker lock(&m_mutex);
        m_points.clear();
    }
    QJsonObject root;
    if (!loadConfig(&root))
        return false;
    readSettings(root);
    QStringList codes;
    for (const QJsonValue &v : root.value("data").toArray()) {
        if (!v.isObject()) {
            zlog_info(g_zlog, "RTD point is not an object, skipped");
            continue;
        }
        DataCfg_t cfg = pointFromJson(v.toObject());
        DataCfgOpt(cfg.code, cfg, ADDR_ADD);
        codes << QString::number(cfg.code);
    }
    zlog_info(g_zlog, "RTD code list:%s", local8(codes.join(',')).constData());
    if (codes.isEmpty())
        return false;
    externalAddr();
    return true;
}

void RealData::stop()
{
    m_running = false;
    wait();
}

void RealData::run()
{
    m_running = true;
    for (int tick = 1; m_running; ++tick) {
        const int every = m_uploadTime;
        // In slices, so that stop() does not wait out a whole second.
        for (int slept = 0; slept < kTickMs && m_running; slept += 50)
            QThread::msleep(50);
        if (!m_running)
            break;
        // A cloud that is back has missed the changes of its time away, so
        // the next upload carries every point.
        const quint64 ups = Outbox::getInstance()->upCount();
        if (ups != m_seenUps) {
            m_seenUps = ups;
            m_refreshData = true;
        }
        // Read every second all the same: forwarding topics publish values
        // of their own period, and must not repeat a stale one.
        if (every > 0 && (tick - 1) % every != 0) {
            QMutexLocker lock(&m_mutex);
            readPoints();
            continue;
        }
        // exchange(): a status notification during the pass asks for the next one.
        if (m_refreshData.exchange(false))
            uploadData(false);
        else
            uploadData(m_valueChange);
    }
}

// Called with m_mutex held.
int RealData::readPoint(const DataCfg_t &cfg, QByteArray &buffer, int *size)
{
    // Room for the widest fixed type.
    *size = qMax(2 * cfg.addr.length, 8);
    buffer.fill('\0', *size);
    return communication::getInstance()->getCommValue(cfg.addr.link, cfg.addr.reg, cfg.addr.index, cfg.addr.station,
                                                      cfg.addr.length, reinterpret_cast<uchar *>(buffer.data()),
                                                      *size, communication::kindOf(cfg.dataType));
}

// Called with m_mutex held.
void RealData::readPoints()
{
    QByteArray buffer;
    for (DataCfg_t &cfg : m_points) {
        int size = 0;
        cfg.good = readPoint(cfg, buffer, &size) == 1;
        if (cfg.good)
            cfg.value = formatValue(cfg, reinterpret_cast<const uchar *>(buffer.constData()), size, cfg.value);
    }
    ++m_passes;
}

// Written by hand rather than through a JSON document: with thousands of
// points the document's allocations cost more than everything else in a pass.
// A point without a good value is left out: the platform keeps showing the
// last value the device really sent rather than a made-up one, and gets the
// point again as soon as it reads.
QString RealData::rtdMessage(bool changedOnly)
{
    QByteArray items;
    {
        QMutexLocker lock(&m_mutex);
        readPoints();
        items.reserve(m_points.size() * 32);
        for (DataCfg_t &cfg : m_points) {
            const bool unchanged = cfg.passGood && cfg.value == cfg.passValue;
            cfg.passGood = cfg.good;
            cfg.passValue = cfg.value;
            if (!cfg.good || (changedOnly && unchanged))
                continue;
            items.append(items.isEmpty() ? "{\"code\":" : ",{\"code\":");
            items.append(QByteArray::number(cfg.code));
            items.append(",\"data\":");
            lumbra::appendJsonString(items, cfg.value);
            items.append('}');
        }
    }
    if (!m_uploadFunState || items.isEmpty())
        return QString();
    QByteArray text("{\"sn_code\":");
    lumbra::appendJsonString(text, deviceInfo::getInstance()->sn());
    text.append(",\"data\":[").append(items).append("]}");
    return QString::fromUtf8(text);
}

void RealData::uploadData(bool changedOnly)
{
    const QString text = rtdMessage(changedOnly);
    if (text.isEmpty())
        return;
    if (m_compressed)
        Outbox::getInstance()->post("/DevSend/RTDCompress", text, true, 0, Outbox::Latest);
    else
        Outbox::getInstance()->post("/DevSend/RTD", text, false, 0, Outbox::Latest);
}

bool RealData::GetDataByCode(const int &code, QString &out)
{
    QMutexLocker lock(&m_mutex);
    auto it = m_points.constFind(code);
    if (it == m_points.constEnd() || !it->good)
        return false;
    out = it->value;
    return true;
}

bool RealData::pointState(int code, QString *value, bool *good, int *dataType)
{
    QMutexLocker lock(&m_mutex);
    auto it = m_points.constFind(code);
    if (it == m_points.constEnd())
        return false;
    *value = it->value;
    *good = it->good;
    if (dataType)
        *dataType = it->dataType;
    return true;
}

bool RealData::DataCfgOpt(const int &code, const DataCfg_t &cfg, const AddrOpt &op)
{
    QMutexLocker lock(&m_mutex);
    if (op == ADDR_DELETE)
        m_points.remove(code);
    else
        m_points.insert(code, cfg);
    return true;
}

bool RealData::externalAddr()
{
    QList<AddressInfo> addrs;
    {
        QMutexLocker lock(&m_mutex);
        addrs.reserve(m_points.size());
        for (const DataCfg_t &cfg : qAsConst(m_points))
            addrs.append(cfg.addr);
    }
    lumbra::registerExternalAddrs(addrs, EXTERNAL_ADDR_REALDATA);
    return true;
}

void RealData::setUploadFunState(const bool &on)
{
    m_uploadFunState = on;
    if (on)
        m_refreshData = true;
}

void RealData::setConfigFile(const QString &message)
{
    // Upserts: the online setter makes a modified point exist live, so the
    // file must hold it too, once.
    lumbra::editConfigFile(kConfigPath, kFileTexts, message, "data_code", nullptr, {true, true});
}
