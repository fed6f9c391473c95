// Which handler serves each topic the cloud sends down to the gateway.
#pragma once

#include <QMap>
#include <QString>

class MqttMsgEvent {
public:
    // payload is the envelope's "msg" text; the result is not used.
    using DealFunc = int (*)(const QString &payload);

    // Topic -> handler. A topic with a null handler is known but not served.
    // Filled before the bridge starts; afterwards change it through
    // setHandler() only, since the bridge thread reads it.
    static QMap<QString, DealFunc> MqttDealMap;

    static void MqttDealMapInit();
    // Serves topic with func from now on, also across MqttDealMapInit().
    static void setHandler(const QString &topic, DealFunc func);
    // False for a topic that is not in the map; func then stays untouched.
    static bool lookup(const QString &topic, DealFunc *func);

    // "/DevRecv/MsgAck": an alarm upload's request id came back.
    static int MsgAck(const QString &payload);
    // "/DevRecv/HisData": the cloud took a group's history batch.
    static int recvHistoryDataAck(const QString &payload);
};
