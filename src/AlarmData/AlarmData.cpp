#include "AlarmData.h"

#include "SQLiteDB/SQLiteDB.h"
#include "alarmvalue.h"
#include "device_comm/addressjson.h"
#include "device_comm/communication.h"
#include "generalFunc/configfile.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QDateTime>
#include <QJsonArray>

#include <cstring>

using lumbra::jsonBool;
using lumbra::jsonInt;
using lumbra::jsonText;

namespace {

const char kConfigPath[] = "./iotRunTime/AlarmConfiguration.json";
const lumbra::ConfigFileTexts kInitTexts{"Alarm data config file no such", "Alarm data config file open fail",
                                         "Alarm data config parse fail"};
const lumbra::ConfigFileTexts kEditTexts{"Alarm data config file no such", "alarm data config file open fail",
                                         "alarm data config parse fail"};
const char kDbFile[] = "alarm_iot.db";
const char kTable[] = "alarmdata";
const char kTableForm[] = "CREATE TABLE IF NOT EXISTS %1 (alarm_id INT NOT NULL,level INT, type INT,value TEXT,time INT);";

const unsigned kMaxRows = 50000;
const int kPruneRows = 2000;
const int kTickMs = 100;
const quint64 kRecountTicks = 6000;

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

const char *bitText(bool bit)
{
    return bit ? "ON" : "OFF";
}

}  // namespace

AlarmData *AlarmData::getInstance()
{
    static AlarmData instance;
    return &instance;
}

// A static instance outlives main(); its thread must be gone by then.
AlarmData::~AlarmData()
{
    stop();
}

AlarmData::AlarmCft_t AlarmData::alarmFromJson(const QJsonObject &item)
{
    AlarmCft_t a;
    a.level = jsonInt(item.value("alarm_level"));
    a.index = jsonInt(item.value("index"));
    a.name = jsonText(item.value("alarm_name"));
    a.text = jsonText(item.value("alarm_text"));
    a.groupName = jsonText(item.value("group_name"));
    a.condition = jsonInt(item.value("condition"), -1);
    a.dataType = jsonInt(item.value("data_type"));
    a.limitMax = jsonText(item.value("limit_max"));
    a.limitMin = jsonText(item.value("limit_min"));
    a.limitValue = jsonText(item.value("limit_value"));
    a.addr = lumbra::addressFromJson(item.value("data_readAddress").toObject(), a.dataType, 0);
    return a;
}

void AlarmData::init()
{
    if (!load())
        return;
    if (!isRunning()) {
        // Set here, not in run(): a stop() right after start() must not be
        // undone when the thread gets going.
        m_running = true;
        start();
    }
    zlog_info(g_zlog, "AlarmData init end");
}

bool AlarmData::load()
{
    zlog_info(g_zlog, "AlarmData init start");
    QJsonObject root;
    if (!lumbra::readConfigObject(kConfigPath, kInitTexts, &root))
        return false;
    // Only for a configuration, as history does with its database.
    openStore();
    m_uploadFunc = jsonBool(root.value("upload_func_state"));
    // Written beside the switch by the upload-control command; honoured so
    // that the choice survives a restart.
    m_compress = jsonBool(root.value("compressed"));
    readAlarms(root);
    externalAddr();
    return true;
}

void AlarmData::openStore()
{
    if (!m_db) {
        m_db = std::make_unique<SQLiteDB>(kDbFile);
        m_delivery.setStore(m_db.get());
    }
    // The thread counts the rows when it starts.
    m_db->executeSQL(QString(kTableForm).arg(kTable).toStdString());
}

void AlarmData::readAlarms(const QJsonObject &root)
{
    QList<AlarmCft_t> alarms;
    QStringList ids;
    for (const QJsonValue &v : root.value("data").toArray()) {
        if (!v.isObject()) {
            zlog_info(g_zlog, "Alarm entry is not an object, skipped");
            continue;
        }
        const AlarmCft_t a = alarmFromJson(v.toObject());
        zlog_info(g_zlog, "init Alarm info: name:%s index:%d condition:%d data_type:%d link:%s reg:%s no:%s",
                  local8(a.name).constData(), a.index, a.condition, a.dataType, local8(a.addr.link).constData(),
                  local8(a.addr.reg).constData(), local8(a.addr.addr).constData());
        alarms.append(a);
        ids << QString::number(a.index);
    }
    zlog_info(g_zlog, "Alarm code list:%s", local8(ids.join(',')).constData());
    QMutexLocker lock(&m_mutex);
    m_alarms = alarms;
}

bool AlarmData::externalAddr()
{
    QList<AddressInfo> addrs;
    {
        QMutexLocker lock(&m_mutex);
        addrs.reserve(m_alarms.size());
        for (const AlarmCft_t &a : qAsConst(m_alarms))
            addrs.append(a.addr);
    }
    lumbra::registerExternalAddrs(addrs, EXTERNAL_ADDR_ALARM);
    return true;
}

void AlarmData::stop()
{
    m_running = false;
    wait();
}

void AlarmData::run()
{
    zlog_info(g_zlog, "Alarm task begin");
    m_delivery.recount();
    while (m_running) {
        QThread::msleep(kTickMs);
        if (!m_running || !m_uploadFunc)
            continue;
        {
            QMutexLocker lock(&m_mutex);
            ++m_ticks;
            evaluateLocked();
            timerRefreshData();
        }
        // Posting never waits: the outbox takes the message or, while the
        // cloud is down, refuses it and the row waits in the table.
        sendData();
    }
    zlog_info(g_zlog, "Alarm task end");
}

void AlarmData::evaluateAll()
{
    QMutexLocker lock(&m_mutex);
    evaluateLocked();
}

void AlarmData::evaluateLocked()
{
    for (AlarmCft_t &a : m_alarms) {
        switch (a.condition) {
        case 0: dealOnAlarm(a); break;
        case 1: dealOffAlarm(a); break;
        case 2: dealOffOnAlarm(a); break;
        case 3: dealOnOFFAlarm(a); break;
        default:
            if (alarmvalue::isWordCode(a.condition))
                dealWordAlarm(a);
            break;
        }
    }
}

// Only a value the device sent on its last read is judged: the zeros of a
// point never read, or the stale value of one whose station is down, would
// raise alarms (and recoveries) the device never showed.
bool AlarmData::readValue(const AlarmCft_t &alarm)
{
    const int cells = qMax(alarm.addr.length, 1);
    const int size = qMax(2 * cells, 2 * alarmvalue::kRawBytes);
    m_raw.fill('\0', size);
    return communication::getInstance()->getCommValue(alarm.addr.link, alarm.addr.reg, alarm.addr.index,
                                                      alarm.addr.station, cells,
                                                      reinterpret_cast<uchar *>(m_raw.data()), size,
                                                      communication::kindOf(alarm.dataType)) == 1;
}

bool AlarmData::readBit(const AlarmCft_t &alarm, bool *bit)
{
    if (!readValue(alarm))
        return false;
    quint32 raw;
    std::memcpy(&raw, m_raw.constData(), sizeof raw);
    *bit = raw % 2;
    return true;
}

void AlarmData::dealLevelAlarm(AlarmCft_t &alarm, bool activeBit)
{
    bool bit;
    if (!readBit(alarm, &bit))
        return;
    if (bit == activeBit && !alarm.alarmed) {
        alarm.alarmed = true;
        zlog_info(g_zlog, "trigger on alarm");
        raise(alarm, EVENT_ALARM, bitText(bit));
    } else if (bit != activeBit && alarm.alarmed) {
        alarm.alarmed = false;
        zlog_info(g_zlog, "trigger on recovery");
        raise(alarm, EVENT_RECOVERY, bitText(bit));
    }
}

void AlarmData::dealOnAlarm(AlarmCft_t &alarm)
{
    dealLevelAlarm(alarm, true);
}

void AlarmData::dealOffAlarm(AlarmCft_t &alarm)
{
    dealLevelAlarm(alarm, false);
}

// armed: the bit is up (and the alarm with it).
void AlarmData::dealOffOnAlarm(AlarmCft_t &alarm)
{
    bool bit;
    if (!readBit(alarm, &bit))
        return;
    if (bit) {
        if (!alarm.armed) {
            alarm.alarmed = alarm.armed = true;
            raise(alarm, EVENT_ALARM, bitText(bit));
        }
    } else if (alarm.alarmed) {
        alarm.alarmed = alarm.armed = false;
        raise(alarm, EVENT_RECOVERY, bitText(bit));
    } else {
        alarm.armed = false;
    }
}

// armed: the bit has been seen up, so that a later drop is a real falling
// edge and not the state the device started in.
void AlarmData::dealOnOFFAlarm(AlarmCft_t &alarm)
{
    bool bit;
    if (!readBit(alarm, &bit))
        return;
    if (!bit) {
        if (alarm.armed) {
            alarm.armed = false;
            alarm.alarmed = true;
            raise(alarm, EVENT_ALARM, bitText(bit));
        }
    } else if (alarm.alarmed) {
        alarm.alarmed = false;
        alarm.armed = true;
        raise(alarm, EVENT_RECOVERY, bitText(bit));
    } else {
        alarm.armed = true;
    }
}

void AlarmData::dealWordAlarm(AlarmCft_t &alarm)
{
    if (!alarmvalue::isWordCode(alarm.condition) || !readValue(alarm))
        return;
    using namespace alarmvalue;
    const uchar *raw = reinterpret_cast<const uchar *>(m_raw.constData());
    const bool range = alarm.condition >= 9;
    const qint64 limit = range ? 0 : limitValue(alarm.dataType, alarm.limitValue);
    const qint64 min = range ? limitValue(alarm.dataType, alarm.limitMin) : 0;
    const qint64 max = range ? limitValue(alarm.dataType, alarm.limitMax) : 0;
    const bool holds = wordCondition(alarm.condition, wordValue(alarm.dataType, raw), limit, min, max);
    if (holds == alarm.alarmed)
        return;
    alarm.alarmed = holds;
    raise(alarm, holds ? EVENT_ALARM : EVENT_RECOVERY, valueText(alarm.dataType, raw));
}

void AlarmData::raise(AlarmCft_t &alarm, int type, const QString &value)
{
    insertData(alarm.index, alarm.level, type, value);
    forwardAlarmEvent(alarm.index, type, value);
}

bool AlarmData::insertData(const int &index, const int &level, const int &type, const QString &value)
{
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    // One arg() call: a '%' in the value must not be taken for a placeholder.
    const QString sql = QString("INSERT INTO %1 VALUES(%2,%3,%4,'%5',%6)")
                            .arg(kTable, QString::number(index), QString::number(level), QString::number(type),
                                 sqlQuote(value), QString::number(now - g_zonetime));
    const bool ok = m_db && m_db->insert(sql.toStdString());
    zlog_info(g_zlog, "alarm_id:%d, type:%d, value:%s, time:%s", index, type, local8(value).constData(),
              local8(QDateTime::fromSecsSinceEpoch(now).toString("yyyy-MM-dd hh:mm:ss")).constData());
    if (!ok)
        return false;
    if (m_delivery.added() > kMaxRows)
        delAlarmData(kPruneRows);
    return true;
}

bool AlarmData::delAlarmData(const int &n)
{
    return m_delivery.prune(n);
}

void AlarmData::sendData()
{
    m_delivery.pump(m_compress);
}

void AlarmData::MsgAck(unsigned int reqId)
{
    m_delivery.ack(reqId, m_compress);
}

// Called with m_mutex held, once per tick.
void AlarmData::timerRefreshData()
{
    if (m_ticks % kRecountTicks == 0)
        m_delivery.recount();
}

void AlarmData::setConfigFile(const QString &message)
{
    // Upserts: the online setter makes a modified alarm exist live, so the
    // file must hold it too, once.
    lumbra::editConfigFile(kConfigPath, kEditTexts, message, "index", "index", {true, true});
}

void AlarmData::startIfStopped()
{
    if (isRunning())
        return;
    m_running = true;
    start();
}
