// The forwarding configuration's topic records as the clients use them:
// functions, publishing intervals, triggers and payload templates. No I/O
// here.
#pragma once

#include "MqttClient.h"

#include <QJsonObject>
#include <QList>
#include <QString>

namespace lumbra::forward {

enum class Func { Unknown, RtdSend, AlarmSend, OnlineMessage, WillMessage, WriteRealData, Reboot };

// By "func_type_name"; the number "func_type" (1..6 in the order above)
// only when the name is empty.
Func funcOf(const MqttClient::topicData_t &topic);
bool isSubscribeFunc(Func f);

// Seconds of a unit code: 0 seconds, 1 minutes, 2 hours, 3 days; 0 for others.
int unitSeconds(int unit);

MqttClient::topicData_t topicFromJson(const QJsonObject &item);
QJsonObject topicToJson(const MqttClient::topicData_t &topic);

// The payload template: "json", or "json_v2" when "json" is empty.
QString templateOf(const MqttClient::topicData_t &topic);
// The data codes of "config_ids" ("1,2,3"); when that is empty, and always
// for alarm topics, the codes of the "%value_<code>%" placeholders in the
// template.
QList<int> topicCodes(const MqttClient::topicData_t &topic);

// Period in seconds of a "RTDSend" topic: type 1 the server's push period,
// type 2 "send_interval" seconds, type 3 "send_interval" in the unit of
// "send_interval_code". 0: never by time.
int intervalSeconds(const MqttClient::topicData_t &topic, int pushPeriod);

// Whether the trigger fires for the trigger point's current value: on each
// change for condition 0, otherwise when the condition starts to hold.
// Keeps its memory in the topic.
bool triggerFires(MqttClient::topicData_t &topic, const QString &value);

// True when "config_ids" lists index, or lists nothing.
bool topicWantsAlarm(const MqttClient::topicData_t &topic, int index);

// A client id as a file name: anything but letters, digits, '-', '_' and
// '.' becomes '_'.
QString fileSafe(const QString &id);

}  // namespace lumbra::forward
