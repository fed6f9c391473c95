#include "mqttconfig.h"

#include "mqtttopic.h"

#include "generalFunc/jsonvalue.h"

#include <mosquitto.h>

#include <climits>

namespace lumbra::forward {

namespace {

const int kNotANumber = INT_MIN;

// A missing key is def; a key that holds no number is kNotANumber, so that
// "port":"abc" is refused rather than read as a default.
int number(const QJsonObject &o, const char *key, int def)
{
    const QJsonValue v = o.value(key);
    if (v.isUndefined() || v.isNull() || (v.isString() && v.toString().trimmed().isEmpty()))
        return def;
    if (v.isDouble() && v.toDouble() != double(qint64(v.toDouble())))
        return kNotANumber;
    return jsonInt(v, kNotANumber);
}

// 3 is MQTT 3.1, 4 is 3.1.1, 5 is 5; platforms also write the version text.
int mqttVersion(const QJsonValue &v)
{
    if (v.isUndefined() || v.isNull())
        return MQTT_PROTOCOL_V311;
    const QString text = jsonText(v).trimmed().toLower().remove(QChar('v'));
    if (text == "3" || text == "3.1" || text == "31")
        return MQTT_PROTOCOL_V31;
    if (text.isEmpty() || text == "4" || text == "3.1.1" || text == "311")
        return MQTT_PROTOCOL_V311;
    if (text == "5" || text == "5.0")
        return MQTT_PROTOCOL_V5;
    return 0;
}

void readTls(const QJsonObject &s, MqttClient::Settings *out)
{
    out->cafile = jsonText(s.value("cafile")).trimmed();
    out->capath = jsonText(s.value("capath")).trimmed();
    out->certfile = jsonText(s.value("certfile")).trimmed();
    out->keyfile = jsonText(s.value("keyfile")).trimmed();
    out->keyPassword = jsonText(s.value("keyfile_password"));
    out->tlsInsecure = jsonBool(s.value("tls_insecure"));
}

}  // namespace

bool serverFromJson(const QJsonObject &s, MqttClient::Settings *out, QString *why)
{
    MqttClient::Settings r;
    r.configId = jsonInt(s.value("server_config_id"));
    r.clientId = jsonText(s.value("client_id"));
    r.host = jsonText(s.value("host")).trimmed();
    readTls(s, &r);
    r.port = number(s, "port", r.tls() ? 8883 : 1883);
    // 0 reads as the default: without pings a half-open connection would
    // go unnoticed for as long as TCP cares to wait.
    r.keepAlive = number(s, "keep_alive", 60);
    if (r.keepAlive == 0)
        r.keepAlive = 60;
    r.mqttVersion = mqttVersion(s.value("mqtt_version"));
    r.pushPeriod = qMax(0, jsonInt(s.value("push_period"))) * unitSeconds(jsonInt(s.value("push_unit")));
    r.useAuthentication = jsonBool(s.value("use_authentication"));
    r.userName = jsonText(s.value("user_name"));
    r.password = jsonText(s.value("pass_word"));
    r.useOfflineCache = jsonBool(s.value("use_offline_cache"));
    r.storeType = jsonInt(s.value("store_type"), 2);
    r.cacheNum = jsonInt(s.value("cache_num"));

    if (r.host.isEmpty())
        *why = "no host";
    else if (r.port < 1 || r.port > 65535)
        *why = QString("port %1 is not 1..65535").arg(jsonText(s.value("port")));
    else if (r.keepAlive < 5 || r.keepAlive > 65535)
        *why = QString("keep_alive %1 is not 5..65535 seconds").arg(jsonText(s.value("keep_alive")));
    else if (r.mqttVersion == 0)
        *why = QString("mqtt_version %1 is not 3 (3.1), 4 (3.1.1) or 5").arg(jsonText(s.value("mqtt_version")));
    else if (r.certfile.isEmpty() != r.keyfile.isEmpty())
        *why = "certfile and keyfile go together";
    else if (!r.certfile.isEmpty() && !r.tls())
        *why = "a client certificate needs cafile or capath";
    else if (r.clientId.toUtf8().size() > 65535)
        *why = "client_id longer than 65535 bytes";
    else if (r.mqttVersion == MQTT_PROTOCOL_V31 && r.clientId.toUtf8().size() > 23)
        *why = "client_id longer than the 23 bytes MQTT 3.1 allows";
    else if (r.useAuthentication && r.userName.isEmpty())
        *why = "use_authentication without user_name";
    else
        why->clear();
    *out = r;
    return why->isEmpty();
}

QString topicProblem(const MqttClient::topicData_t &topic)
{
    const Func func = funcOf(topic);
    if (func == Func::Unknown)
        return QString("function \"%1\" (%2) unknown").arg(topic.funcTypeName).arg(topic.funcType);
    const QByteArray name = topic.topic.toUtf8();
    if (name.isEmpty())
        return "empty topic";
    if (name.size() > 65535)
        return QString("topic of %1 bytes, more than 65535").arg(name.size());
    if (isSubscribeFunc(func)) {
        if (mosquitto_sub_topic_check2(name.constData(), name.size()) != MOSQ_ERR_SUCCESS)
            return "not a valid subscription filter";
        return QString();
    }
    if (mosquitto_pub_topic_check2(name.constData(), name.size()) != MOSQ_ERR_SUCCESS)
        return "not a valid publish topic (no + or # in it)";
    const int size = templateOf(topic).toUtf8().size();
    if (size > kMaxPayloadBytes)
        return QString("payload template of %1 bytes, more than %2").arg(size).arg(kMaxPayloadBytes);
    return QString();
}

}  // namespace lumbra::forward
