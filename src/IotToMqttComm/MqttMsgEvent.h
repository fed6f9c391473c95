// Which handler serves each topic the cloud sends down to the gateway, and
// the replies that confirm a configuration change. The handlers live in
// several files but log under one source name.
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

    // Replies of the configuration synchronisation: store the file, confirm
    // the items, move the synchronisation on.
    static int recvLinkAckEvent(const QString &payload);
    static int recvRealAckEvent(const QString &payload);
    static int recvHistoryAckEvent(const QString &payload);
    static int recvAlarmAckEvent(const QString &payload);
    static int recvScriptAckEvent(const QString &payload);
    static int recvMqttSerCfgAckEvent(const QString &payload);

    // "/DevRecv/DataUploadCtrl": switch an upload live and in its file.
    static int DataUploadCtrl(const QString &payload);
    // "/DevRecv/MsgAck": an alarm upload's request id came back.
    static int MsgAck(const QString &payload);
    // "/DevRecv/HisData": the cloud took a group's history batch.
    static int recvHistoryDataAck(const QString &payload);

    // Online edits of single items.
    static int OnlineRTDSet(const QString &payload);
    static int WriteRTD(const QString &payload);
    static int OnlineHDSet(const QString &payload);
    static int OnlineADSet(const QString &payload);
    static int OnlineScriptSet(const QString &payload);

    static void RepOnlineSetAck(const QString &topic, const QString &dataIndex, const QString &operationType,
                                int result);
    static void RepIotAllConfig(const QString &configType);
};
