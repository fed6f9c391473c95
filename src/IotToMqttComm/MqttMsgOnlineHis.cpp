// The cloud's online edits of history groups and alarms.
#include "MqttMsgEvent.h"

#include "onlineset_p.h"

#include "AlarmData/AlarmData.h"
#include "HistoricalData/HistoricalData.h"
#include "generalFunc/globals.h"

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "IotToMqttComm/MqttMsgEvent.cpp"

using lumbra::online::isExternal;
using lumbra::online::Operation;
using Group = HistoricalData::HisDataCfg_t;
using Alarm = AlarmData::AlarmCft_t;

namespace {

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

const char *operationText(Operation op)
{
    return op == Operation::Add ? "add" : "modify";
}

bool groupIsExternal(const Group &g)
{
    // Only trigger groups read their trigger address.
    if (g.sampleMethod == HistoricalData::SAMPLE_TRIGGER && isExternal(g.triggerAddr))
        return true;
    for (const HistoricalData::sampData_t &p : g.samples)
        if (isExternal(p.addr))
            return true;
    return false;
}

void logGroup(const Group &g)
{
    zlog_info(g_zlog, "group_id:%u,group_name:%s,sample_interval:%d,sample_method:%d", g.groupId,
              local8(g.groupName).constData(), g.period, g.sampleMethod);
    for (const HistoricalData::sampData_t &p : g.samples)
        zlog_info(g_zlog, "data_name:%s link:%s block:%s no:%s intaddr:%d sta:%d leng:%d", local8(p.name).constData(),
                  local8(p.addr.link).constData(), local8(p.addr.reg).constData(), local8(p.addr.addr).constData(),
                  p.addr.index, p.addr.station, p.addr.length);
}

bool putGroup(const QJsonObject &item, Operation, QString *id)
{
    const Group g = HistoricalData::groupFromJson(item);
    *id = QString::number(g.groupId);
    logGroup(g);
    Group old;
    const bool replaced = HistoricalData::getInstance()->putGroup(g, &old);
    return groupIsExternal(g) || (replaced && groupIsExternal(old));
}

bool removeGroup(int id)
{
    Group old;
    return HistoricalData::getInstance()->removeGroup(static_cast<unsigned>(id), &old) && groupIsExternal(old);
}

void logAlarm(const QByteArray &prefix, const Alarm &a)
{
    zlog_info(g_zlog, "%sname:%s index:%d condition:%d data_type:%d link:%s reg:%s no:%s", prefix.constData(),
              local8(a.name).constData(), a.index, a.condition, a.dataType, local8(a.addr.link).constData(),
              local8(a.addr.reg).constData(), local8(a.addr.addr).constData());
}

bool putAlarm(const QJsonObject &item, Operation op, QString *id)
{
    Alarm a = AlarmData::alarmFromJson(item);
    *id = QString::number(a.index);
    logAlarm(QByteArray("operation_type Alarm:") + operationText(op) + " info: ", a);
    AlarmData *ad = AlarmData::getInstance();
    QMutexLocker lock(&ad->mutex());
    for (Alarm &old : ad->AlarmCfgList()) {
        if (old.index != a.index)
            continue;
        // An alarm that is up stays up: the new terms then raise no second
        // alarm, and a recovery closes the one the cloud holds open.
        a.alarmed = old.alarmed;
        a.armed = old.armed;
        const bool renew = isExternal(a.addr) || isExternal(old.addr);
        old = a;
        return renew;
    }
    ad->AlarmCfgList().append(a);
    return isExternal(a.addr);
}

bool removeAlarm(int index)
{
    AlarmData *ad = AlarmData::getInstance();
    QMutexLocker lock(&ad->mutex());
    QList<Alarm> &list = ad->AlarmCfgList();
    bool renew = false;
    for (int i = list.size() - 1; i >= 0; --i) {
        if (list.at(i).index != index)
            continue;
        renew = isExternal(list.at(i).addr) || renew;
        list.removeAt(i);
    }
    return renew;
}

}  // namespace

int MqttMsgEvent::OnlineHDSet(const QString &payload)
{
    QJsonObject msg;
    if (!lumbra::online::parseMessage(payload, &msg))
        return -1;
    HistoricalData *his = HistoricalData::getInstance();
    his->setConfigFile(payload);
    const lumbra::online::Target target{"/DevSend/OnlineHDSetAck", "His", putGroup, removeGroup};
    Operation op;
    const bool renew = lumbra::online::applyEdit(msg, target, &op);
    bool empty;
    {
        QMutexLocker lock(&his->mutex());
        empty = his->HisDataCfgList().isEmpty();
    }
    if (empty)
        return 0;
    lumbra::online::renewExternal(renew, [his] { return his->externalAddr(); });
    his->startIfStopped();
    return 0;
}

int MqttMsgEvent::OnlineADSet(const QString &payload)
{
    QJsonObject msg;
    if (!lumbra::online::parseMessage(payload, &msg))
        return -1;
    AlarmData *ad = AlarmData::getInstance();
    ad->setConfigFile(payload);
    const lumbra::online::Target target{"/DevSend/OnlineADSetAck", "Alarm", putAlarm, removeAlarm};
    Operation op;
    const bool renew = lumbra::online::applyEdit(msg, target, &op);
    bool empty;
    {
        QMutexLocker lock(&ad->mutex());
        if (op == Operation::Add || op == Operation::Modify)
            for (const Alarm &a : qAsConst(ad->AlarmCfgList()))
                logAlarm("total Alarm info: ", a);
        empty = ad->AlarmCfgList().isEmpty();
    }
    if (empty)
        return 0;
    lumbra::online::renewExternal(renew, [ad] { return ad->externalAddr(); });
    ad->startIfStopped();
    return 0;
}
