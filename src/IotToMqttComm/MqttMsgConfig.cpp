// Configuration replies of the synchronisation, upload control and online
// script edits.
#include "MqttMsgEvent.h"
#include "mqttmsg_p.h"

#include "AlarmData/AlarmData.h"
#include "HistoricalData/HistoricalData.h"
#include "IotConfig/IotConfig.h"
#include "Macro/Macro.h"
#include "RealData/RealData.h"
#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "IotToMqttComm/MqttMsgEvent.cpp"

namespace {

// The six replies differ only in these columns.
struct CfgReply {
    CurrentCfgReq kind;
    const char *errorText;
    const char *idKey;
    const char *ackTopic;
    const char *writeFail;
};

const CfgReply kReplies[] = {
    {CFG_LINK, "link recv json error:", "link_id", "/DevSend/OnlineConnSetAck", "Link File open write fail"},
    {CFG_REAL, "real recv json error:", "data_code", "/DevSend/OnlineRTDSetAck", "real File open write fail"},
    {CFG_HISTORY, "history recv json error:", "group_id", "/DevSend/OnlineHDSetAck", "history File open write fail"},
    {CFG_ALARM, "Alarm recv json error:", "index", "/DevSend/OnlineADSetAck", "Alarm File open write fail"},
    {CFG_SCRIPT, "Script recv json error:", "script_id", "/DevSend/ScriptConfigsetAck", "Script File open write fail"},
    {CFG_SERVER, "Mqtt Server recv json error:", "id", "/DevSend/OnlineMqttServerSetAck",
     "Mqtt Server File open write fail"},
};

QByteArray local8(const QString &s) { return s.toLocal8Bit(); }

QString idList(const QJsonArray &items, const char *key)
{
    QStringList ids;
    for (const QJsonValue &v : items)
        ids << QString::number(lumbra::jsonInt(v.toObject().value(key)));
    return ids.join(',');
}

// Whole-file replace: a crash mid-write leaves the old file, never half a new one.
bool storeFile(const QString &path, const QByteArray &text)
{
    QDir().mkpath(QFileInfo(path).path());
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size() && file.commit();
}

int dealCfgReply(const CfgReply &r, const QString &payload)
{
    QJsonObject o;
    if (!lumbra::parseObject(payload, &o)) {
        zlog_error(g_zlog, "%s%s", r.errorText, local8(payload).constData());
        return 0;
    }
    IotConfig *sync = IotConfig::getInstance();
    // The link reply opens every cycle, so a later push revives a finished one.
    if (r.kind == CFG_LINK && sync->isFinished()) {
        sync->start();
        zlog_info(g_zlog, "IotConfig thread finish restart");
    }
    const QJsonArray data = o.value("data").toArray();
    if (!data.isEmpty())
        MqttMsgEvent::RepOnlineSetAck(r.ackTopic, idList(data, r.idKey), "add", 1);
    const QString time = lumbra::jsonText(o.value("last_updata_time"));
    if (time != "1" && !storeFile(IotConfig::fileOf(r.kind), payload.toUtf8()))
        zlog_error(g_zlog, "%s", r.writeFail);
    sync->ReplyCfg(r.kind, time);
    return 0;
}

// Sets keys of a service's file, leaving the others alone.
void setFileKeys(const QString &path, const QJsonObject &keys)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        zlog_error(g_zlog, "%s open fail", local8(path).constData());
        return;
    }
    QJsonObject root;
    const QByteArray text = file.readAll();
    file.close();
    if (!lumbra::parseObject(QString::fromUtf8(text), &root)) {
        zlog_error(g_zlog, "json parse fail:%s", text.constData());
        return;
    }
    for (auto it = keys.begin(); it != keys.end(); ++it)
        root.insert(it.key(), it.value());
    const QByteArray out = QJsonDocument(root).toJson();
    if (out.isEmpty()) {
        zlog_error(g_zlog, "serializer fail");
        return;
    }
    if (!storeFile(path, out))
        zlog_error(g_zlog, "%s open fail", local8(path).constData());
}

struct UploadCtrl {
    bool on = false;
    bool compressed = false;
    int uploadTime = 0;
    bool valueChange = false;
};

// File first, as for every online change: whoever sees the new state in
// memory (or a restart right after) finds it in the file too.
void applyRealTime(const UploadCtrl &c)
{
    setFileKeys(IotConfig::fileOf(CFG_REAL), QJsonObject{{"upload_func_state", c.on},
                                                         {"global_upload_time", c.uploadTime},
                                                         {"compressed", c.compressed},
                                                         {"global_value_change_setting", c.valueChange}});
    RealData *rd = RealData::getInstance();
    QMutexLocker lock(&rd->mutex());
    rd->setCompressed(c.compressed);
    rd->setUploadFunState(c.on);
    rd->setUploadTime(c.uploadTime);
    rd->setValueChange(c.valueChange);
}

}  // namespace

int MqttMsgEvent::recvLinkAckEvent(const QString &payload) { return dealCfgReply(kReplies[CFG_LINK], payload); }
int MqttMsgEvent::recvRealAckEvent(const QString &payload) { return dealCfgReply(kReplies[CFG_REAL], payload); }
int MqttMsgEvent::recvHistoryAckEvent(const QString &payload)
{
    return dealCfgReply(kReplies[CFG_HISTORY], payload);
}
int MqttMsgEvent::recvAlarmAckEvent(const QString &payload) { return dealCfgReply(kReplies[CFG_ALARM], payload); }
int MqttMsgEvent::recvScriptAckEvent(const QString &payload) { return dealCfgReply(kReplies[CFG_SCRIPT], payload); }
int MqttMsgEvent::recvMqttSerCfgAckEvent(const QString &payload)
{
    return dealCfgReply(kReplies[CFG_SERVER], payload);
}

int MqttMsgEvent::DataUploadCtrl(const QString &payload)
{
    QJsonObject o;
    if (!lumbra::parseObject(payload, &o)) {
        zlog_error(g_zlog, "DataUploadCtrl recv json error:%s", local8(payload).constData());
        return -1;
    }
    UploadCtrl c;
    c.on = lumbra::jsonBool(o.value("upload_func_state"));
    c.compressed = lumbra::jsonBool(o.value("compressed"));
    const int type = lumbra::jsonInt(o.value("data_type"));
    c.uploadTime = lumbra::jsonInt(o.value("global_upload_time"));
    c.valueChange = lumbra::jsonBool(o.value("global_value_change_setting"));
    zlog_info(g_zlog, "type:%d upload_func_state:%d compressed:%d uploadTime:%d", type, c.on, c.compressed,
              c.uploadTime);
    const QJsonObject keys{{"upload_func_state", c.on}, {"compressed", c.compressed}};
    if (type == 1) {
        applyRealTime(c);
    } else if (type == 2) {
        setFileKeys(IotConfig::fileOf(CFG_ALARM), keys);
        AlarmData::getInstance()->setCompress(c.compressed);
        AlarmData::getInstance()->setUploadFunc(c.on);
    } else if (type == 3) {
        setFileKeys(IotConfig::fileOf(CFG_HISTORY), keys);
        HistoricalData::getInstance()->setCompress(c.compressed);
        HistoricalData::getInstance()->setUploadFunc(c.on);
    }
    return 0;
}

int MqttMsgEvent::OnlineScriptSet(const QString &payload)
{
    QJsonObject o;
    QString why;
    if (!lumbra::parseObject(payload, &o, &why)) {
        zlog_error(g_zlog, "json parse fail:%s", local8(why).constData());
        return -1;
    }
    Macro::getInstance()->setConfigFile(payload);
    const QString op = lumbra::jsonText(o.value("operation_type"));
    if (op == "add" || op == "modify") {
        const QJsonArray data = o.value("data").toArray();
        if (!data.isEmpty())
            RepOnlineSetAck("/DevSend/ScriptConfigsetAck", idList(data, "script_id"), op, 1);
    }
    Macro::getInstance()->init();
    communication::getInstance()->enableExternalAddrInfo(true);
    return 0;
}
