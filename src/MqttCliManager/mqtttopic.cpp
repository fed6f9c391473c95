#include "mqtttopic.h"

#include "generalFunc/jsonvalue.h"

#include <QRegularExpression>

#include <cmath>

namespace lumbra::forward {

namespace {

struct FuncName {
    const char *name;
    Func func;
};

const FuncName kFuncs[] = {
    {"RTDSend", Func::RtdSend},         {"AlarmSend", Func::AlarmSend},         {"OnlineMessage", Func::OnlineMessage},
    {"WillMessage", Func::WillMessage}, {"WriteRealData", Func::WriteRealData}, {"Reboot", Func::Reboot},
};

enum Condition { COND_CHANGE, COND_GT, COND_GE, COND_LT, COND_LE, COND_EQ, COND_NE, COND_IN, COND_OUT };

bool number(const QString &text, double *v)
{
    bool ok = false;
    *v = text.trimmed().toDouble(&ok);
    return ok && std::isfinite(*v);
}

// False when a needed number is missing: an unusable trigger never fires.
bool conditionHolds(const MqttClient::topicData_t &t, double v)
{
    double limit = 0, lo = 0, hi = 0;
    const bool range = t.conditionCode == COND_IN || t.conditionCode == COND_OUT;
    if (range ? !(number(t.min, &lo) && number(t.max, &hi)) : !number(t.triggerValue, &limit))
        return false;
    switch (t.conditionCode) {
    case COND_GT: return v > limit;
    case COND_GE: return v >= limit;
    case COND_LT: return v < limit;
    case COND_LE: return v <= limit;
    case COND_EQ: return v == limit;
    case COND_NE: return v != limit;
    case COND_IN: return v >= lo && v <= hi;
    case COND_OUT: return v < lo || v > hi;
    default: return false;
    }
}

QList<int> idList(const QString &text)
{
    QList<int> out;
    for (const QString &part : text.split(',', Qt::SkipEmptyParts)) {
        bool ok = false;
        const int id = part.trimmed().toInt(&ok);
        if (ok && !out.contains(id))
            out << id;
    }
    return out;
}

}  // namespace

Func funcOf(const MqttClient::topicData_t &topic)
{
    const QString name = topic.funcTypeName.trimmed();
    for (const FuncName &f : kFuncs)
        if (name.compare(QLatin1String(f.name), Qt::CaseInsensitive) == 0)
            return f.func;
    if (name.isEmpty() && topic.funcType >= 1 && topic.funcType <= int(sizeof kFuncs / sizeof kFuncs[0]))
        return kFuncs[topic.funcType - 1].func;
    return Func::Unknown;
}

bool isSubscribeFunc(Func f)
{
    return f == Func::WriteRealData || f == Func::Reboot;
}

int unitSeconds(int unit)
{
    static const int seconds[] = {1, 60, 3600, 86400};
    return unit >= 0 && unit < 4 ? seconds[unit] : 0;
}

MqttClient::topicData_t topicFromJson(const QJsonObject &item)
{
    MqttClient::topicData_t t;
    t.serverConfigId = jsonInt(item.value("server_config_id"));
    t.formatName = jsonText(item.value("format_name"));
    t.funcTypeName = jsonText(item.value("func_type_name"));
    t.funcType = jsonInt(item.value("func_type"));
    t.topic = jsonText(item.value("topic"));
    t.sendInterval = jsonInt(item.value("send_interval"));
    t.sendIntervalType = jsonInt(item.value("send_interval_type"), 1);
    t.sendIntervalCode = jsonInt(item.value("send_interval_code"));
    t.qos = jsonInt(item.value("qos"));
    t.json = jsonText(item.value("json"));
    t.jsonV2 = jsonText(item.value("json_v2"));
    t.configIds = jsonText(item.value("config_ids"));
    t.triggerEnabled = jsonBool(item.value("trigger_enabled"));
    t.triggerValue = jsonText(item.value("trigger_value"));
    t.max = jsonText(item.value("max"));
    t.min = jsonText(item.value("min"));
    t.triIndex = jsonInt(item.value("tri_index"));
    t.conditionCode = jsonInt(item.value("condition_code"));
    return t;
}

QJsonObject topicToJson(const MqttClient::topicData_t &t)
{
    return QJsonObject{{"server_config_id", t.serverConfigId},
                       {"format_name", t.formatName},
                       {"func_type_name", t.funcTypeName},
                       {"func_type", t.funcType},
                       {"topic", t.topic},
                       {"send_interval", t.sendInterval},
                       {"send_interval_type", t.sendIntervalType},
                       {"send_interval_code", t.sendIntervalCode},
                       {"qos", t.qos},
                       {"json", t.json},
                       {"json_v2", t.jsonV2},
                       {"config_ids", t.configIds},
                       {"trigger_enabled", t.triggerEnabled},
                       {"trigger_value", t.triggerValue},
                       {"max", t.max},
                       {"min", t.min},
                       {"tri_index", t.triIndex},
                       {"condition_code", t.conditionCode}};
}

QString templateOf(const MqttClient::topicData_t &topic)
{
    return topic.json.trimmed().isEmpty() ? topic.jsonV2 : topic.json;
}

QList<int> topicCodes(const MqttClient::topicData_t &topic)
{
    // An alarm topic's ids are alarm indexes, not data codes.
    if (funcOf(topic) != Func::AlarmSend) {
        const QList<int> listed = idList(topic.configIds);
        if (!listed.isEmpty())
            return listed;
    }
    static const QRegularExpression placeholder("%(?:value|quality)_(\\d+)%");
    QList<int> found;
    auto it = placeholder.globalMatch(templateOf(topic));
    while (it.hasNext()) {
        const int code = it.next().captured(1).toInt();
        if (!found.contains(code))
            found << code;
    }
    return found;
}

int intervalSeconds(const MqttClient::topicData_t &topic, int pushPeriod)
{
    switch (topic.sendIntervalType) {
    case 1: return pushPeriod;
    case 2: return qMax(0, topic.sendInterval);
    case 3: return qMax(0, topic.sendInterval) * unitSeconds(topic.sendIntervalCode);
    default: return 0;
    }
}

bool triggerFires(MqttClient::topicData_t &topic, const QString &value)
{
    if (topic.conditionCode == COND_CHANGE) {
        const bool changed = topic.triggerSeen && value != topic.lastTriggerValue;
        topic.triggerSeen = true;
        topic.lastTriggerValue = value;
        return changed;
    }
    double v = 0;
    const bool holds = number(value, &v) && conditionHolds(topic, v);
    const bool rising = holds && !topic.triggerHeld;
    topic.triggerHeld = holds;
    return rising;
}

bool topicWantsAlarm(const MqttClient::topicData_t &topic, int index)
{
    const QList<int> ids = idList(topic.configIds);
    return ids.isEmpty() || ids.contains(index);
}

QString fileSafe(const QString &id)
{
    QString out = id;
    for (QChar &c : out)
        if (!(c.isLetterOrNumber() && c.unicode() < 128) && c != '-' && c != '_' && c != '.')
            c = '_';
    return out;
}

}  // namespace lumbra::forward
