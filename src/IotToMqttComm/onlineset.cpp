#include "onlineset_p.h"

#include "MqttMsgEvent.h"
#include "mqttmsg_p.h"

#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QJsonArray>
#include <QStringList>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "IotToMqttComm/MqttMsgEvent.cpp"

namespace lumbra::online {

namespace {

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

Operation operationOf(const QString &text)
{
    if (text == "add")
        return Operation::Add;
    if (text == "modify")
        return Operation::Modify;
    if (text == "delete")
        return Operation::Delete;
    return Operation::Unknown;
}

bool putAll(const QJsonObject &msg, const Target &target, Operation op)
{
    bool renew = false;
    QStringList ids;
    for (const QJsonValue &v : msg.value("data").toArray()) {
        if (!v.isObject()) {
            zlog_error(g_zlog, "%s item is not an object, skipped", target.kind);
            continue;
        }
        QString id;
        renew = target.put(v.toObject(), op, &id) || renew;
        ids << id;
    }
    const QString list = ids.join(',');
    zlog_info(g_zlog, "%s code list:%s", target.kind, local8(list).constData());
    MqttMsgEvent::RepOnlineSetAck(target.ackTopic, list, op == Operation::Add ? "add" : "modify", 1);
    return renew;
}

bool removeAll(const QJsonObject &msg, const Target &target)
{
    bool renew = false;
    QStringList ids;
    for (int id : jsonIds(msg.value("ids"))) {
        renew = target.remove(id) || renew;
        ids << QString::number(id);
    }
    // Unknown ids are acknowledged as well: what the cloud wanted gone is gone.
    MqttMsgEvent::RepOnlineSetAck(target.ackTopic, ids.join(','), "delete", 1);
    return renew;
}

}  // namespace

bool parseMessage(const QString &payload, QJsonObject *msg)
{
    QString why;
    if (parseObject(payload, msg, &why))
        return true;
    zlog_error(g_zlog, "json parse fail:%s", local8(why).constData());
    return false;
}

bool isExternal(const AddressInfo &a)
{
    return communication::getLocalIndex(a.reg) == -1;
}

bool applyEdit(const QJsonObject &msg, const Target &target, Operation *op)
{
    const QString text = jsonText(msg.value("operation_type"));
    *op = operationOf(text);
    switch (*op) {
    case Operation::Add:
    case Operation::Modify:
        return putAll(msg, target, *op);
    case Operation::Delete:
        return removeAll(msg, target);
    case Operation::Unknown:
        break;
    }
    zlog_error(g_zlog, "%s operation_type:%s unknown, nothing changed", target.kind, local8(text).constData());
    return false;
}

void renewExternal(bool renew, const std::function<bool()> &externalAddr)
{
    if (!renew)
        return;
    externalAddr();
    communication::getInstance()->enableExternalAddrInfo(true);
}

}  // namespace lumbra::online
