// Checks of the forwarding configuration, made when it loads: a server whose
// settings libmosquitto would refuse, or that could never connect, is left
// out with one line that says why; a topic that no broker accepts is left out
// of its server, and the rest of the server runs.
#pragma once

#include "MqttClient.h"

#include <QJsonObject>
#include <QString>

namespace lumbra::forward {

// The largest payload a template may make: a box that forwards a few values
// has no use for more, and the cache and the broker are spared.
const int kMaxPayloadBytes = 128 * 1024;

// The settings of a server record; false with *why set when the record
// cannot make a working client (host, port, keep-alive, MQTT version, TLS
// files that come without their partner).
bool serverFromJson(const QJsonObject &server, MqttClient::Settings *out, QString *why);

// Why a topic record cannot be used (a publish topic with a wildcard, an
// empty or oversized topic, an oversized template, an unknown function), or
// an empty text when it can.
QString topicProblem(const MqttClient::topicData_t &topic);

}  // namespace lumbra::forward
