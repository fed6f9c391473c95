// The platform's online edits of the forwarding servers and their topics.
#include "MqttCliManager.h"

#include "mqtttopic.h"

#include "IotToMqttComm/MqttMsgEvent.h"
#include "generalFunc/configfile.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"
#include "generalFunc/secrets.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "MqttCliManager/MqttCliManager.cpp"

using Topic = MqttClient::topicData_t;

namespace {

const char kConfigPath[] = "./iotRunTime/ServerCfg.json";
const char kPubList[] = "publish_topic_data";
const char kSubList[] = "subscribe_topic_data";

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

bool parse(const QString &text, QJsonObject *out)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return false;
    *out = doc.object();
    return true;
}

int indexOfServer(const QJsonArray &servers, int id)
{
    for (int i = 0; i < servers.size(); ++i)
        if (lumbra::jsonInt(servers.at(i).toObject().value("server_config_id")) == id)
            return i;
    return -1;
}

// A server record that comes without topic lists keeps the ones it had: the
// platform edits servers and topics separately.
QJsonObject mergedServer(QJsonObject server, const QJsonObject &old)
{
    for (const char *list : {kPubList, kSubList})
        if (!server.contains(list) && old.contains(list))
            server.insert(list, old.value(list));
    return server;
}

bool putServers(QJsonArray &servers, const QJsonArray &items, QStringList *ids)
{
    for (const QJsonValue &v : items) {
        if (!v.isObject()) {
            zlog_error(g_zlog, "mqtt server item is not an object, skipped");
            continue;
        }
        const int id = lumbra::jsonInt(v.toObject().value("server_config_id"));
        const int at = indexOfServer(servers, id);
        if (at < 0)
            servers.append(v);
        else
            servers[at] = mergedServer(v.toObject(), servers.at(at).toObject());
        *ids << QString::number(id);
    }
    return !ids->isEmpty();
}

bool removeServers(QJsonArray &servers, const QJsonValue &idsValue, QStringList *ids)
{
    for (int id : lumbra::jsonIds(idsValue)) {
        for (int at = indexOfServer(servers, id); at >= 0; at = indexOfServer(servers, id))
            servers.removeAt(at);
        *ids << QString::number(id);
    }
    return !ids->isEmpty();
}

// The topics of an edit, per server, in the order they came. They may come
// in "data" or in the two lists of a server record.
QMap<int, QList<Topic>> topicsByServer(const QJsonObject &msg)
{
    QMap<int, QList<Topic>> out;
    for (const char *list : {"data", kPubList, kSubList}) {
        for (const QJsonValue &v : msg.value(list).toArray()) {
            if (!v.isObject()) {
                zlog_error(g_zlog, "mqtt topic item is not an object, skipped");
                continue;
            }
            const Topic t = lumbra::forward::topicFromJson(v.toObject());
            out[t.serverConfigId].append(t);
        }
    }
    return out;
}

void setTopicLists(QJsonObject &server, const QString &op, const QList<Topic> &topics)
{
    QJsonArray pub = op == "add" ? server.value(kPubList).toArray() : QJsonArray();
    QJsonArray sub = op == "add" ? server.value(kSubList).toArray() : QJsonArray();
    for (const Topic &t : topics)
        (lumbra::forward::isSubscribeFunc(lumbra::forward::funcOf(t)) ? sub : pub).append(lumbra::forward::topicToJson(t));
    server.insert(kPubList, pub);
    server.insert(kSubList, sub);
}

}  // namespace

int MqttCliManager::onlineServerHandler(const QString &payload)
{
    getInstance()->onlineSetServer(payload);
    return 0;
}

int MqttCliManager::onlineTopicHandler(const QString &payload)
{
    getInstance()->OnlineMQTopicSet(payload);
    return 0;
}

void MqttCliManager::onlineSetServer(const QString &message)
{
    QJsonObject msg;
    if (!parse(message, &msg)) {
        zlog_error(g_zlog, "mqtt server online set data json parse err");
        return;
    }
    if (setConfigFile(message))
        init();
}

bool MqttCliManager::setConfigFile(const QString &message)
{
    QJsonObject msg;
    if (!parse(message, &msg)) {
        zlog_error(g_zlog, "mqtt server online set data json parse err");
        return false;
    }
    // A box that forwards nothing yet has no file: the first add makes it.
    QJsonObject root{{"data", QJsonArray()}};
    if (QFile::exists(kConfigPath) && !readFile(&root))
        return false;
    const QString op = lumbra::jsonText(msg.value("operation_type"));
    QJsonArray servers = root.value("data").toArray();
    QStringList ids;
    bool changed = false;
    if (op == "add" || op == "modify")
        changed = putServers(servers, msg.value("data").toArray(), &ids);
    else if (op == "delete")
        changed = removeServers(servers, msg.value("ids"), &ids);
    else
        zlog_error(g_zlog, "mqtt server operation_type:%s unknown, nothing changed", local8(op).constData());
    if (!changed)
        return false;
    root.insert("data", servers);
    if (!lumbra::writeConfigObject(kConfigPath, root))
        return false;
    zlog_info(g_zlog, "mqtt server operation_type:%s ids:%s", local8(op).constData(), local8(ids.join(',')).constData());
    MqttMsgEvent::RepOnlineSetAck("/DevSend/OnlineMqttServerSetAck", ids.join(','), op, 1);
    return true;
}

void MqttCliManager::OnlineMQTopicSet(const QString &message)
{
    QJsonObject msg;
    if (!parse(message, &msg)) {
        zlog_error(g_zlog, "mqtt topic set data json parse err:%s", local8(lumbra::maskSecrets(message)).constData());
        return;
    }
    const QString op = lumbra::jsonText(msg.value("operation_type"));
    QMap<int, QList<Topic>> edits;
    if (op == "delete") {
        for (int id : lumbra::jsonIds(msg.value("ids")))
            edits.insert(id, {});
    } else if (op == "add" || op == "modify") {
        edits = topicsByServer(msg);
    } else {
        zlog_error(g_zlog, "mqtt topic operation_type:%s unknown, nothing changed", local8(op).constData());
        return;
    }
    QJsonObject root;
    if (!readFile(&root))
        return;
    QJsonArray servers = root.value("data").toArray();
    QStringList ids;
    for (auto it = edits.constBegin(); it != edits.constEnd(); ++it) {
        const int at = indexOfServer(servers, it.key());
        if (at < 0) {
            zlog_error(g_zlog, "mqtt topic set: server_config_id:%d unknown, skipped", it.key());
            continue;
        }
        QJsonObject server = servers.at(at).toObject();
        setTopicLists(server, op, it.value());
        servers[at] = server;
        ids << QString::number(it.key());
    }
    root.insert("data", servers);
    if (ids.isEmpty() || !lumbra::writeConfigObject(kConfigPath, root))
        return;
    for (auto it = edits.constBegin(); it != edits.constEnd(); ++it)
        if (ids.contains(QString::number(it.key())))
            applyTopicEdit(op, it.key(), it.value());
    zlog_info(g_zlog, "mqtt topic operation_type:%s ids:%s", local8(op).constData(), local8(ids.join(',')).constData());
    MqttMsgEvent::RepOnlineSetAck("/DevSend/OnlineMqttTopicSetAck", ids.join(','), op, 1);
}

void MqttCliManager::applyTopicEdit(const QString &op, int configId, const QList<Topic> &topics)
{
    QMutexLocker lock(&m_mutex);
    MqttClient *c = nullptr;
    for (MqttClient *candidate : qAsConst(m_clients))
        if (candidate->configId() == configId)
            c = candidate;
    if (!c)
        return;
    if (op != "add") {
        c->removePubTopicData(configId);
        c->removeSubTopicData(configId);
    }
    for (Topic t : topics) {
        if (lumbra::forward::isSubscribeFunc(lumbra::forward::funcOf(t)))
            c->addSubTopicData(t);
        else
            c->addPubTopicData(t);
    }
}
