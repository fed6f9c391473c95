#include "RealData.h"

#include "IotToMqttComm/IotToMqttComm.h"
#include "device_comm/communication.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QSet>

using lumbra::jsonBool;
using lumbra::jsonInt;
using lumbra::jsonText;

namespace {

const char kConfigPath[] = "./iotRunTime/RealTimeConfiguration.json";
const int kMaxTotalDigits = 128;
const int kTickMs = 1000;

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

// Words the address spans: fixed by the type where the type fixes it.
int lengthFor(int dataType, int totalDigits, int configured)
{
    switch (dataType) {
    case VALUE_U32:
    case VALUE_S32:
    case VALUE_BCD32:
    case VALUE_FLOAT:
        return 2;
    case VALUE_STRING:
        return totalDigits / 2;
    default:
        return configured;
    }
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
    QFile file(kConfigPath);
    if (!file.exists()) {
        zlog_info(g_zlog, "Real data config file no such");
        return false;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        zlog_info(g_zlog, "Real data config file open fail");
        return false;
    }
    QJsonDocument doc = QJsonDocument::fromJson(file.readAll());
    if (!doc.isObject()) {
        zlog_info(g_zlog, "Real data config parse fail");
        return false;
    }
    *root = doc.object();
    return true;
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
    const QJsonObject a = item.value("data_readAddress").toObject();
    cfg.addr.link = jsonText(a.value("link"));
    cfg.addr.reg = jsonText(a.value("block"));
    cfg.addr.addr = jsonText(a.value("no"));
    cfg.addr.station = jsonInt(a.value("sta"));
    cfg.addr.type = jsonInt(a.value("type"));
    cfg.addr.length = lengthFor(cfg.dataType, cfg.totalDigits, jsonInt(a.value("length")));
    cfg.addr.index = communication::getInstance()->getIndexFromAddr(cfg.addr.link, cfg.addr.reg, cfg.addr.addr,
                                                                     cfg.addr.station, cfg.dataType == VALUE_BIT ? 0 : 1);
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
        if (every > 0 && (tick - 1) % every != 0)
            continue;
        // exchange(): a status notification during the pass asks for the next one.
        if (m_refreshData.exchange(false))
            uploadData(false);
        else
            uploadData(m_valueChange);
    }
}

// Called with m_mutex held.
int RealData::readPoint(DataCfg_t &cfg, QByteArray &buffer)
{
    // Room for the widest fixed type, zeroed: a point the link manager cannot
    // answer reads as zero, as it always has.
    const int size = qMax(2 * cfg.addr.length, 8);
    buffer.fill('\0', size);
    communication::getInstance()->getCommValue(cfg.addr.link, cfg.addr.reg, cfg.addr.index, cfg.addr.station,
                                               cfg.addr.length, reinterpret_cast<uchar *>(buffer.data()), size);
    return size;
}

// Written by hand rather than through a JSON document: with thousands of
// points the document's allocations cost more than everything else in a pass.
QString RealData::rtdMessage(bool changedOnly)
{
    QByteArray items;
    QByteArray buffer;
    {
        QMutexLocker lock(&m_mutex);
        items.reserve(m_points.size() * 32);
        for (DataCfg_t &cfg : m_points) {
            int size = readPoint(cfg, buffer);
            const QString old = cfg.value;
            cfg.value = formatValue(cfg, reinterpret_cast<const uchar *>(buffer.constData()), size, old);
            if (changedOnly && cfg.value == old)
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
        IotToMqttComm::getInstance()->MqttMsgSend("/DevSend/RTDCompress", text, true, 0);
    else
        IotToMqttComm::getInstance()->MqttMsgSend("/DevSend/RTD", text, false, 0);
}

bool RealData::GetDataByCode(const int &code, QString &out)
{
    QMutexLocker lock(&m_mutex);
    auto it = m_points.constFind(code);
    if (it == m_points.constEnd())
        return false;
    out = it->value;
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
    QList<KEY_ADDRESS> keys;
    {
        QMutexLocker lock(&m_mutex);
        QSet<QString> seen;
        for (const DataCfg_t &cfg : qAsConst(m_points)) {
            const AddressInfo &a = cfg.addr;
            if (communication::getLocalIndex(a.reg) != -1)
                continue;
            const QString id = QString("%1\x1f%2\x1f%3\x1f%4\x1f%5\x1f%6")
                                   .arg(a.link, a.reg, a.addr)
                                   .arg(a.station)
                                   .arg(a.length)
                                   .arg(a.type);
            if (seen.contains(id))
                continue;
            seen.insert(id);
            keys.append(ExternalAddrTable::makeKey(a.link, a.reg, a.addr, a.station, a.length, a.type, a.index));
        }
    }
    if (!keys.isEmpty())
        communication::getInstance()->setExternalAddrInfo(keys, EXTERNAL_ADDR_REALDATA);
    return true;
}

void RealData::setUploadFunState(const bool &on)
{
    m_uploadFunState = on;
    if (on)
        m_refreshData = true;
}

namespace {

QJsonArray editedPoints(QJsonArray points, const QString &operation, const QJsonObject &message)
{
    const QJsonArray items = message.value("data").toArray();
    if (operation == "add") {
        for (const QJsonValue &v : items)
            points.append(v);
    } else if (operation == "modify") {
        for (const QJsonValue &v : items) {
            const int code = jsonInt(v.toObject().value("data_code"));
            for (int i = 0; i < points.size(); ++i) {
                if (jsonInt(points.at(i).toObject().value("data_code")) == code)
                    points[i] = v;
            }
        }
    } else if (operation == "delete") {
        QSet<int> ids;
        for (const QJsonValue &v : message.value("ids").toArray())
            ids.insert(jsonInt(v));
        for (int i = points.size() - 1; i >= 0; --i) {
            if (ids.contains(jsonInt(points.at(i).toObject().value("data_code"))))
                points.removeAt(i);
        }
    } else {
        zlog_info(g_zlog, "RTD config: unknown operation_type \"%s\", file left as it was", local8(operation).constData());
    }
    return points;
}

}  // namespace

void RealData::setConfigFile(const QString &message)
{
    QJsonObject root;
    if (!loadConfig(&root))
        return;
    QJsonParseError error;
    QJsonDocument doc = QJsonDocument::fromJson(message.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        zlog_info(g_zlog, "json parse fail:%s",
                  local8(error.error != QJsonParseError::NoError ? error.errorString() : "not an object").constData());
        return;
    }
    const QJsonObject msg = doc.object();
    root.insert("data", editedPoints(root.value("data").toArray(), msg.value("operation_type").toString(), msg));
    // Written aside and renamed, so a power cut leaves the old file or the new one.
    QSaveFile file(kConfigPath);
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(root).toJson()) < 0 || !file.commit())
        zlog_error(g_zlog, "RTD config write fail:%s", local8(file.errorString()).constData());
}
