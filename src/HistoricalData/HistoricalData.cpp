#include "HistoricalData.h"

#include "hisdata_p.h"

#include "Outbox/Outbox.h"
#include "SQLiteDB/SQLiteDB.h"
#include "device_comm/addressjson.h"
#include "device_comm/communication.h"
#include "generalFunc/configfile.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QDateTime>
#include <QElapsedTimer>

#include <cstring>

using lumbra::jsonBool;
using lumbra::jsonInt;
using lumbra::jsonText;

namespace {

const char kConfigPath[] = "./iotRunTime/HistoryConfiguration.json";
const char kDbFile[] = "history_iot.db";
const char kTable[] = "historydata";
const lumbra::ConfigFileTexts kInitTexts{"Historical data config file no such", "Historical data config file open fail",
                                         "Historical data config parse fail"};
const lumbra::ConfigFileTexts kEditTexts{"his data config file no such", "his data config file open fail",
                                         "his data config parse fail"};
const int kTickMs = 100;
// Ten minutes of enabled ticks between recounts of the table.
const quint64 kRefreshTicks = 6000;
const unsigned kMaxRows = 100000;
const int kPruneRows = 2000;
// A point is read into this many zeroed bytes, a trigger into kTriggerBytes.
const int kPointBytes = 128;
const int kTriggerBytes = 8;

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

}  // namespace

HistoricalData *HistoricalData::getInstance()
{
    static HistoricalData instance;
    return &instance;
}

// A static instance outlives main(); its thread must be gone by then.
HistoricalData::~HistoricalData()
{
    stop();
}

qint64 HistoricalData::clockNow() const
{
    return m_clock ? m_clock() : QDateTime::currentSecsSinceEpoch();
}

void HistoricalData::init()
{
    if (!load() || isRunning())
        return;
    m_running = true;
    start();
}

bool HistoricalData::load()
{
    zlog_info(g_zlog, "HistoricalData init start");
    QMutexLocker lock(&m_mutex);
    QJsonObject root;
    if (!lumbra::readConfigObject(kConfigPath, kInitTexts, &root))
        return false;
    // Opened only for a configuration: a gateway without history never
    // loads the database engine's pages (a megabyte of resident memory).
    if (!m_db) {
        m_db = std::make_unique<SQLiteDB>(kDbFile);
        // A failure is logged by the store; sampling then fails row by row
        // while the rest of the gateway keeps going.
        m_db->createTableSQL(kTable);
        // Now, while no batch refers to a rowid.
        m_db->useIncrementalVacuum();
        // Batches are taken group by group: without it, a group with few
        // rows behind a long backlog of another would cost a scan of the
        // whole table on every pass.
        m_db->executeSQL(QString("CREATE INDEX IF NOT EXISTS %1_group ON %1(sampleID)").arg(kTable).toStdString());
        m_delivery.setStore(m_db.get());
    }
    m_uploadFunc = jsonBool(root.value("upload_func_state"));
    m_compress = jsonBool(root.value("compressed"));
    loadGroups(root.value("data").toArray());
    lock.unlock();
    externalAddr();
    return true;
}

// Called with m_mutex held.
void HistoricalData::loadGroups(const QJsonArray &items)
{
    m_groups.clear();
    m_formats.clear();
    QStringList ids;
    for (const QJsonValue &v : items) {
        if (!v.isObject()) {
            zlog_info(g_zlog, "his group is not an object, skipped");
            continue;
        }
        HisDataCfg_t group = groupFromJson(v.toObject());
        logGroup(group);
        m_formats.insert(group.groupId, dataFormats(group));
        ids << QString::number(group.groupId);
        m_groups.append(group);
    }
    zlog_info(g_zlog, "His code list:%s", local8(ids.join(',')).constData());
}

HistoricalData::HisDataCfg_t HistoricalData::groupFromJson(const QJsonObject &item)
{
    HisDataCfg_t g;
    g.groupId = static_cast<unsigned>(jsonInt(item.value("group_id")));
    g.groupName = jsonText(item.value("group_name"));
    g.sampleInterval = jsonText(item.value("sample_interval"));
    g.period = lumbra::his::periodSeconds(g.sampleInterval);
    g.sampleMethod = jsonInt(item.value("sample_method"));
    g.triggerMethodText = jsonText(item.value("trigger_method"));
    g.triggerMethod = jsonInt(item.value("trigger_method"), -1);
    if (g.sampleMethod == SAMPLE_TRIGGER)
        g.triggerAddr = lumbra::addressFromJson(item.value("triggerAddress").toObject(), VALUE_BIT);
    g.sampleTotal = jsonInt(item.value("sample_total"));
    g.saveDay = jsonInt(item.value("save_day"));
    g.timingData = lumbra::his::clockTimes(jsonText(item.value("timing_data")));
    g.timingMinute = jsonInt(item.value("timing_minute"), -1);
    for (const QJsonValue &v : item.value("sample_data").toArray()) {
        if (!v.isObject()) {
            zlog_info(g_zlog, "group_id:%u sample point is not an object, skipped", g.groupId);
            continue;
        }
        g.samples.append(lumbra::his::pointFromJson(v.toObject()));
    }
    return g;
}

void HistoricalData::logGroup(const HisDataCfg_t &g) const
{
    zlog_info(g_zlog, "group_id:%u,group_name:%s,sample_interval:%d,sample_method:%d, timing_data:%s,timing_minute:%d",
              g.groupId, local8(g.groupName).constData(), g.period, g.sampleMethod,
              local8(g.timingData.join(',')).constData(), g.timingMinute);
    for (const sampData_t &p : g.samples)
        zlog_info(g_zlog, "data_name:%s link:%s block:%s no:%s intaddr:%d sta:%d leng:%d", local8(p.name).constData(),
                  local8(p.addr.link).constData(), local8(p.addr.reg).constData(), local8(p.addr.addr).constData(),
                  p.addr.index, p.addr.station, p.addr.length);
}

bool HistoricalData::externalAddr()
{
    QList<AddressInfo> addrs;
    {
        QMutexLocker lock(&m_mutex);
        for (const HisDataCfg_t &g : qAsConst(m_groups)) {
            if (g.sampleMethod == SAMPLE_TRIGGER)
                addrs.append(g.triggerAddr);
            for (const sampData_t &p : g.samples)
                addrs.append(p.addr);
        }
    }
    lumbra::registerExternalAddrs(addrs, EXTERNAL_ADDR_HISTORY);
    return true;
}

void HistoricalData::stop()
{
    m_running = false;
    wake();
    wait();
}

void HistoricalData::wake()
{
    QMutexLocker lock(&m_wakeMutex);
    m_woken = true;
    m_wakeUp.wakeAll();
}

void HistoricalData::waitForWake(int ms)
{
    QMutexLocker lock(&m_wakeMutex);
    if (!m_woken && m_running)
        m_wakeUp.wait(&m_wakeMutex, static_cast<unsigned long>(ms));
    m_woken = false;
}

void HistoricalData::run()
{
    zlog_info(g_zlog, "historical data thread start");
    {
        QMutexLocker lock(&m_mutex);
        m_rowCount = m_db ? m_db->dataNum(kTable) : 0;
    }
    while (m_running) {
        // An acknowledgement wakes the thread for the group's next batch;
        // sampling keeps its own 100 ms cadence all the same.
        QElapsedTimer slept;
        slept.start();
        for (qint64 left = kTickMs; left > 0 && m_running; left = kTickMs - slept.elapsed()) {
            waitForWake(static_cast<int>(left));
            if (m_uploadFunc)
                sendIfDue();
        }
        if (m_running)
            tick();
    }
    zlog_info(g_zlog, "historical data thread end");
}

void HistoricalData::tick()
{
    if (!m_uploadFunc)
        return;
    ++m_ticks;
    const qint64 now = clockNow();
    {
        QMutexLocker lock(&m_mutex);
        m_now = now;
        for (HisDataCfg_t &group : m_groups)
            sampleGroup(group);
        timerRefreshData();
        // The cloud came back: what went out before may not have arrived.
        const quint64 ups = Outbox::getInstance()->upCount();
        if (ups != m_upCount || m_delivery.passDue())
            m_sendFlag = true;
        m_upCount = ups;
    }
    sendIfDue();
}

void HistoricalData::sendIfDue()
{
    if (m_sendFlag && Outbox::getInstance()->cloudUp()) {
        m_sendFlag = false;
        sendData();
    }
}

void HistoricalData::sampleGroup(HisDataCfg_t &group)
{
    switch (group.sampleMethod) {
    case SAMPLE_CYCLE:
        cycleSampleFun(group);
        break;
    case SAMPLE_TRIGGER:
        triggerSampleFun(group);
        break;
    case SAMPLE_TIMING:
        timingSampleFun(group);
        break;
    default:
        break;
    }
}

bool HistoricalData::periodDue(HisDataCfg_t &group)
{
    if (group.period <= 0 || m_now % group.period != 0 || m_now == group.lastSampleSecond)
        return false;
    group.lastSampleSecond = m_now;
    return true;
}

bool HistoricalData::cycleSampleFun(HisDataCfg_t &group)
{
    if (!periodDue(group))
        return false;
    const bool stored = sampleData(group);
    if (m_rowCount >= HisDelivery::kBatchRows)
        m_sendFlag = true;
    return stored;
}

// -1 while the trigger point has no good value: a trigger the device did not
// show must neither sample nor arm an edge.
int HistoricalData::triggerState(const HisDataCfg_t &group)
{
    const AddressInfo &a = group.triggerAddr;
    uchar raw[kTriggerBytes] = {0};
    if (communication::getInstance()->getCommValue(a.link, a.reg, a.index, a.station, a.length, raw,
                                                   kTriggerBytes) != 1)
        return -1;
    quint32 first = 0;
    std::memcpy(&first, raw, sizeof first);
    return first != 0 ? 1 : 0;
}

bool HistoricalData::triggerSampleFun(HisDataCfg_t &group)
{
    const int state = triggerState(group);
    if (state < 0)
        return false;
    switch (group.triggerMethod) {
    case TRIGGER_LEVEL_HIGH:
    case TRIGGER_LEVEL_LOW:
        if (!periodDue(group) || (state == 1) != (group.triggerMethod == TRIGGER_LEVEL_HIGH))
            return false;
        return sampleData(group);
    case TRIGGER_RISING:
        if (state == 0) {
            group.edge = false;
            return false;
        }
        if (group.edge)
            return false;
        group.edge = true;
        break;
    case TRIGGER_FALLING:
        if (state == 1) {
            group.edge = true;
            return false;
        }
        if (!group.edge)
            return false;
        group.edge = false;
        break;
    default:
        return false;
    }
    m_sendFlag = true;
    return sampleData(group);
}

bool HistoricalData::timingSampleFun(HisDataCfg_t &group)
{
    const QDateTime local = QDateTime::fromSecsSinceEpoch(m_now);
    if (!group.timingData.isEmpty()) {
        const QString hhmm = local.toString("hh:mm");
        if (!group.timingData.contains(hhmm)) {
            group.lastHhmm.clear();
            return false;
        }
        if (hhmm == group.lastHhmm)
            return false;
        zlog_info(g_zlog, "sampData hh_mm:%s", local8(hhmm).constData());
        group.lastHhmm = hhmm;
        m_sendFlag = true;
        return sampleData(group);
    }
    const int minute = local.time().minute();
    if (minute != group.timingMinute || minute == group.lastMinute)
        return false;
    zlog_info(g_zlog, "sampData minute:%d", minute);
    group.lastMinute = minute;
    m_sendFlag = true;
    return sampleData(group);
}

QString HistoricalData::readPoint(const sampData_t &point)
{
    uchar raw[kPointBytes] = {0};
    const AddressInfo &a = point.addr;
    // A point that did not read is stored as an empty field, never as the
    // zeros or the stale value behind it.
    if (communication::getInstance()->getCommValue(a.link, a.reg, a.index, a.station, a.length, raw, kPointBytes,
                                                   communication::kindOf(point.dataType)) != 1)
        return QString();
    return unitTool::value2str(raw, kPointBytes, point.dataType, point.decimalDigits);
}

// Called with m_mutex held.
bool HistoricalData::sampleData(HisDataCfg_t &group)
{
    if (!m_db)
        return false;
    QStringList texts;
    for (const sampData_t &p : qAsConst(group.samples))
        texts << readPoint(p);
    const QString sql = QString("INSERT INTO %1 VALUES(%2,'%3','%4')")
                            .arg(kTable, QString::number(group.groupId), sqlQuote(texts.join('\n')),
                                 QString::number(m_now - g_zonetime));
    if (!m_db->insert(sql.toStdString()))
        return false;
    if (++m_rowCount > kMaxRows && delHisData(kPruneRows))
        m_rowCount -= kPruneRows;
    return true;
}

// The row cap wins over the batches in flight: the disk must not fill while
// the platform is away. A pruned row leaves its batch, so the batch's
// acknowledgement cannot take a later row that reuses the rowid.
bool HistoricalData::delHisData(const int &n)
{
    QStringList last;
    if (!m_db || !m_db->select(QString("select max(rowid) from (select rowid from %1 order by rowid limit %2)")
                                   .arg(kTable)
                                   .arg(n)
                                   .toStdString(),
                               last) || last.value(0).isEmpty())
        return false;
    const qint64 lastRowid = last.first().toLongLong();
    const bool ok = m_db->del(QString("delete from %1 where rowid <= %2").arg(kTable).arg(lastRowid).toStdString());
    zlog_info(g_zlog, "del data num:%d result:%d", n, ok ? 1 : 0);
    if (ok)
        m_delivery.forgetUpTo(lastRowid);
    return ok;
}

// Called with m_mutex held.
void HistoricalData::timerRefreshData()
{
    if (m_ticks % kRefreshTicks == 0)
        refreshStoreLocked();
}

void HistoricalData::refreshStore()
{
    QMutexLocker lock(&m_mutex);
    refreshStoreLocked();
}

// Compacting keeps the rowids that batches in flight remember.
void HistoricalData::refreshStoreLocked()
{
    if (!m_db)
        return;
    m_rowCount = m_db->dataNum(kTable);
    m_db->compact();
    if (m_rowCount >= 1)
        m_sendFlag = true;
}

// Posting never waits, so the pass holds the mutex throughout: sampling and
// acknowledgements see the batches either before it or after it.
void HistoricalData::sendData()
{
    QMutexLocker lock(&m_mutex);
    if (!m_delivery.sendPass(m_formats, m_compress))
        m_sendFlag = true;
}

void HistoricalData::AckdelHisData(unsigned int groupId)
{
    {
        QMutexLocker lock(&m_mutex);
        const int n = m_delivery.ack(groupId);
        if (n > 0)
            m_rowCount -= qMin(m_rowCount, static_cast<unsigned>(n));
    }
    m_sendFlag = true;
    wake();
}

void HistoricalData::setConfigFile(const QString &message)
{
    // Upserts: the online setter makes a modified group exist live, so the
    // file must hold it too, once.
    lumbra::editConfigFile(kConfigPath, kEditTexts, message, "group_id", "group id", {true, true});
}

void HistoricalData::dropGroupRows(unsigned groupId)
{
    // A late acknowledgement of the old batch must not take new rows.
    m_delivery.drop(groupId);
    QStringList count;
    if (!m_db || !m_db->select(QString("select count(*) from %1 where sampleID=%2").arg(kTable).arg(groupId)
                                   .toStdString(), count) || count.value(0).toUInt() == 0)
        return;
    const unsigned n = count.value(0).toUInt();
    const bool ok = m_db->del(QString("delete from %1 where sampleID=%2").arg(kTable).arg(groupId).toStdString());
    if (ok)
        m_rowCount -= qMin(m_rowCount, n);
    zlog_info(g_zlog, "group_id:%u stored rows dropped:%u result:%d", groupId, n, ok ? 1 : 0);
}

bool HistoricalData::putGroup(const HisDataCfg_t &group, HisDataCfg_t *old)
{
    QMutexLocker lock(&m_mutex);
    const QStringList labels = dataFormats(group);
    if (!m_formats.contains(group.groupId) || m_formats.value(group.groupId) != labels)
        dropGroupRows(group.groupId);
    m_formats.insert(group.groupId, labels);
    for (HisDataCfg_t &g : m_groups) {
        if (g.groupId != group.groupId)
            continue;
        if (old)
            *old = g;
        // The group goes on where it was: no second sample in the same
        // second, minute or edge.
        HisDataCfg_t next = group;
        next.lastSampleSecond = g.lastSampleSecond;
        next.edge = g.edge;
        next.lastHhmm = g.lastHhmm;
        next.lastMinute = g.lastMinute;
        g = next;
        return true;
    }
    m_groups.append(group);
    return false;
}

bool HistoricalData::removeGroup(unsigned groupId, HisDataCfg_t *old)
{
    QMutexLocker lock(&m_mutex);
    bool found = false;
    for (int i = m_groups.size() - 1; i >= 0; --i) {
        if (m_groups.at(i).groupId != groupId)
            continue;
        if (old)
            *old = m_groups.at(i);
        m_groups.removeAt(i);
        found = true;
    }
    m_formats.remove(groupId);
    dropGroupRows(groupId);
    return found;
}

void HistoricalData::startIfStopped()
{
    if (isRunning())
        return;
    m_running = true;
    start();
}
