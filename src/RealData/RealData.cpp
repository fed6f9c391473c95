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
#include <QSet>
#include <QVector>

#include <charconv>
#include <cstring>

using lumbra::jsonBool;
using lumbra::jsonInt;
using lumbra::jsonText;

namespace {

const char kConfigPath[] = "./iotRunTime/RealTimeConfiguration.json";
const lumbra::ConfigFileTexts kFileTexts{"Real data config file no such", "Real data config file open fail",
                                         "Real data config parse fail"};
const int kMaxTotalDigits = 128;
const int kTickMs = 1000;

// The fixed parts of an upload's items, plain and as they stand inside
// another JSON string.
struct ItemParts {
    const char *code;  // with the comma that goes before every item but the first
    int codeSize;
    const char *data;
    int dataSize;
};
const ItemParts kItemParts[2] = {{",{\"code\":", 9, ",\"data\":", 8},
                                 {",{\\\"code\\\":", 11, ",\\\"data\\\":", 10}};

char *put(char *w, const char *text, int size)
{
    std::memcpy(w, text, static_cast<size_t>(size));
    return w + size;
}

// One {"code":..,"data":".."} of an upload; the first has no comma before it.
// Plain numbers, nearly every point, go in with one append.
void appendItem(QByteArray &out, bool first, int code, const ValueText &value, bool nested)
{
    const ItemParts &p = kItemParts[nested ? 1 : 0];
    const int skip = first ? 1 : 0;
    char item[64 + ValueText::kMaxInlineJson];
    char *w = put(item, p.code + skip, p.codeSize - skip);
    w = std::to_chars(w, item + 32, code).ptr;
    w = put(w, p.data, p.dataSize);
    if (value.isInline()) {
        w = value.writeInline(w, nested);
        *w++ = '}';
        out.append(item, static_cast<int>(w - item));
        return;
    }
    out.append(item, static_cast<int>(w - item));
    value.appendJson(out, nested);
    out.append('}');
}

// Room for a point's raw value: the widest fixed type at least.
int valueBytes(const RealData::DataCfg_t &cfg)
{
    return qMax(2 * cfg.addr.length, 8);
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
    if (load() && !isRunning()) {
        // Set here, not in run(): a stop() right after start() must not be
        // undone when the thread gets going.
        m_running = true;
        m_sleeper.restart();
        start();
    }
}

bool RealData::load()
{
    zlog_info(g_zlog, "RealData init start");
    {
        QMutexLocker lock(&m_mutex);
        m_points.clear();
    }
    QJsonObject root;
    QByteArray codes;
    // Thousands of points name a handful of links and registers: one copy
    // of each text, shared.
    QSet<QString> texts;
    const auto shared = [&texts](QString &s) { s = *texts.insert(s); };
    const bool read = lumbra::readConfigItems(kConfigPath, kFileTexts, &root, [&](const QJsonValue &v) {
        if (!v.isObject()) {
            zlog_info(g_zlog, "RTD point is not an object, skipped");
            return;
        }
        DataCfg_t cfg = pointFromJson(v.toObject());
        shared(cfg.addr.link);
        shared(cfg.addr.reg);
        DataCfgOpt(cfg.code, cfg, ADDR_ADD);
        if (!codes.isEmpty())
            codes.append(',');
        lumbra::appendJsonInt(codes, cfg.code);
    });
    if (!read)
        return false;
    readSettings(root);
    zlog_info(g_zlog, "RTD code list:%s", codes.constData());
    if (codes.isEmpty())
        return false;
    {
        // The first upload's size, guessed: a plain number's item, escaped,
        // is about 30 bytes.
        QMutexLocker lock(&m_mutex);
        m_messageBytes = 32 * m_points.size();
    }
    externalAddr();
    return true;
}

void RealData::stop()
{
    m_running = false;
    m_sleeper.stop();
    wait();
}

void RealData::run()
{
    for (int tick = 1; m_running; ++tick) {
        const int every = m_uploadTime;
        if (!m_sleeper.sleep(kTickMs) || !m_running)
            break;
        // A cloud that is back has missed the changes of its time away, so
        // the next upload carries every point.
        const quint64 ups = Outbox::getInstance()->upCount();
        if (ups != m_seenUps) {
            m_seenUps = ups;
            m_refreshData = true;
        }
        // Read every second all the same when forwarding topics publish
        // values of their own period: they must not repeat a stale one.
        if (every > 0 && (tick - 1) % every != 0) {
            if (m_readBetweenUploads) {
                QMutexLocker lock(&m_mutex);
                readPoints([](DataCfg_t &) {});
            }
            continue;
        }
        // exchange(): a status notification during the pass asks for the next one.
        if (m_refreshData.exchange(false))
            uploadData(false);
        else
            uploadData(m_valueChange);
    }
}

// Points are read a run at a time, a run being up to kBatch points of one
// link, so that the link and its driver are looked up and locked once a run.
void RealData::readBatch(DataCfg_t *const *points, int n, std::vector<uchar> &scratch,
                         std::vector<communication::ValueRead> &reads)
{
    size_t bytes = 0;
    for (int i = 0; i < n; ++i)
        bytes += static_cast<size_t>(valueBytes(*points[i]));
    scratch.assign(bytes, 0);
    reads.resize(static_cast<size_t>(n));
    uchar *at = scratch.data();
    for (int i = 0; i < n; ++i) {
        const DataCfg_t &cfg = *points[i];
        communication::ValueRead &r = reads[static_cast<size_t>(i)];
        r.reg = &cfg.addr.reg;
        r.addr = cfg.addr.index;
        r.station = cfg.addr.station;
        r.len = cfg.addr.length;
        r.kind = communication::kindOf(cfg.dataType);
        r.data = at;
        r.dataSize = valueBytes(cfg);
        at += r.dataSize;
    }
    communication::getInstance()->getCommValues(points[0]->addr.link, reads.data(), n);
}

void RealData::takeRead(DataCfg_t &cfg, const communication::ValueRead &read)
{
    cfg.good = read.rc == 1;
    if (!cfg.good)
        return;
    char ascii[kMaxAsciiText];
    const int n = asciiText(cfg, read.data, read.dataSize, ascii);
    if (n >= 0)
        cfg.value.setPlain(ascii, n);
    else
        cfg.value.set(formatValue(cfg, read.data, read.dataSize, cfg.value.toString()));
}

// Called with m_mutex held.
template <class Visit>
void RealData::readPoints(Visit &&visit)
{
    const int kBatch = 256;
    std::vector<uchar> scratch;
    std::vector<communication::ValueRead> reads;
    std::vector<DataCfg_t *> run;
    run.reserve(kBatch);
    for (auto it = m_points.begin(); it != m_points.end();) {
        run.clear();
        const QString &link = it->addr.link;
        const auto sameLink = [&link](const QString &l) { return l.constData() == link.constData() || l == link; };
        for (; it != m_points.end() && int(run.size()) < kBatch && sameLink(it->addr.link); ++it)
            run.push_back(&*it);
        readBatch(run.data(), static_cast<int>(run.size()), scratch, reads);
        for (size_t i = 0; i < run.size(); ++i) {
            takeRead(*run[i], reads[i]);
            visit(*run[i]);
        }
    }
    ++m_passes;
}

// Written by hand rather than through a JSON document: with thousands of
// points the document's allocations cost more than everything else in a pass.
// A point without a good value is left out: the platform keeps showing the
// last value the device really sent rather than a made-up one, and gets the
// point again as soon as it reads.
bool RealData::appendMessage(QByteArray &out, bool changedOnly, bool nested)
{
    QByteArray head("{\"sn_code\":");
    lumbra::appendJsonString(head, deviceInfo::getInstance()->sn());
    head.append(",\"data\":[");
    if (nested)
        lumbra::appendJsonEscaped(out, head.constData(), head.size());
    else
        out.append(head);
    const int start = out.size();
    {
        QMutexLocker lock(&m_mutex);
        readPoints([&](DataCfg_t &cfg) {
            const bool unchanged = cfg.passGood && cfg.value == cfg.passValue;
            cfg.passGood = cfg.good;
            if (!unchanged)
                cfg.passValue = cfg.value;
            if (cfg.good && !(changedOnly && unchanged))
                appendItem(out, out.size() == start, cfg.code, cfg.value, nested);
        });
    }
    if (!m_uploadFunState || out.size() == start)
        return false;
    out.append("]}");
    return true;
}

QByteArray RealData::rtdMessage(bool changedOnly)
{
    QByteArray out;
    out.reserve(m_messageBytes);
    return appendMessage(out, changedOnly, false) ? out : QByteArray();
}

// The message is written straight into its envelope, escaped as it goes,
// rather than built whole and escaped into the envelope afterwards.
void RealData::uploadData(bool changedOnly)
{
    const bool zip = m_compressed;
    const QString topic = zip ? QStringLiteral("/DevSend/RTDCompress") : QStringLiteral("/DevSend/RTD");
    QByteArray text = Outbox::envelopeHead(topic, 0, m_messageBytes);
    if (!appendMessage(text, changedOnly, true))
        return;
    // Some room over the last size: the next upload may be a little longer.
    m_messageBytes = text.size() + text.size() / 16;
    Outbox::getInstance()->postEnvelope(topic, std::move(text), zip, Outbox::Latest);
}

bool RealData::GetDataByCode(const int &code, QString &out)
{
    QMutexLocker lock(&m_mutex);
    auto it = m_points.constFind(code);
    if (it == m_points.constEnd() || !it->good)
        return false;
    out = it->value.toString();
    return true;
}

bool RealData::pointState(int code, QString *value, bool *good, int *dataType)
{
    QMutexLocker lock(&m_mutex);
    auto it = m_points.constFind(code);
    if (it == m_points.constEnd())
        return false;
    *value = it->value.toString();
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
    QVector<AddressInfo> addrs;
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
