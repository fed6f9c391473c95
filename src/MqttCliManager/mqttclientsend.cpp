// What a forwarding client publishes, and its offline cache.
#include "MqttClient.h"

#include "MqttCliManager.h"
#include "mqttcache.h"
#include "mqttconfig.h"
#include "mqttconnection.h"
#include "mqttpayload.h"
#include "mqtttopic.h"

#include "RealData/RealData.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/secrets.h"

#include <QJsonDocument>
#include <QRegularExpression>

#include <mosquitto.h>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "MqttCliManager/MqttClient.cpp"

using lumbra::forward::Fill;
using lumbra::forward::Func;
using lumbra::forward::funcOf;

namespace {

const char kDefaultOnline[] = "{\"sn\":\"%sn%\",\"status\":\"online\",\"datetime\":\"%datetime%\"}";
// Cached rows handed to the broker and not yet acknowledged: enough to keep
// a link busy, few enough that a drop costs little to send again.
const int kDrainWindow = 256;
// New messages without acknowledgement kept in memory at most: beyond, a
// burst or a connection that has stopped answering (until its keep-alive
// notices) fills the cache instead.
const size_t kMaxInflight = 1000;

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

QString timeText(const QDateTime &when)
{
    return when.toString("yyyy-MM-dd hh:mm:ss");
}

// Failures that say nothing about the message: with the connection back it
// can go.
bool connectionError(int rc)
{
    return rc == MOSQ_ERR_NO_CONN || rc == MOSQ_ERR_CONN_LOST || rc == MOSQ_ERR_ERRNO || rc == MOSQ_ERR_KEEPALIVE ||
           rc == MOSQ_ERR_NOMEM;
}

QString publishFailure(int rc)
{
    QString text = mosquitto_strerror(rc);
    while (text.endsWith('.'))
        text.chop(1);
    return text;
}

}  // namespace

// Called with m_topicsMutex held.
bool MqttClient::pointVariable(const QString &name, Fill *out)
{
    static const QRegularExpression pattern("^(value|quality)_(\\d+)$");
    const QRegularExpressionMatch m = pattern.match(name);
    if (!m.hasMatch())
        return false;
    const int code = m.captured(2).toInt();
    QString value;
    bool good = false;
    int type = 0;
    if (!RealData::getInstance()->pointState(code, &value, &good, &type)) {
        int held = 0;
        if (m_codeLog.allow(&held))
            zlog_error(g_zlog, "not find rtd code :%d", code);
        return false;
    }
    if (m.captured(1) == "quality")
        *out = Fill::string(good ? "good" : "bad");
    else if (!good)
        *out = Fill::missing();
    else
        *out = type == VALUE_STRING ? Fill::string(value) : Fill::numeric(value);
    return true;
}

QByteArray MqttClient::render(const QString &tmpl, const QDateTime &when,
                              const std::function<bool(const QString &, Fill *)> &extra)
{
    return lumbra::forward::render(tmpl, [&](const QString &name, Fill *out) {
        if (name == "sn") {
            *out = Fill::string(deviceInfo::getInstance()->sn());
            return true;
        }
        return lumbra::forward::systemVariable(name, when, out) || (extra && extra(name, out)) ||
               pointVariable(name, out);
    });
}

// Called with m_topicsMutex held.
bool MqttClient::sendData(topicData_t &topic, const QDateTime &when)
{
    const QString text = lumbra::forward::templateOf(topic);
    if (text.trimmed().isEmpty()) {
        int held = 0;
        if (m_templateLog.allow(&held))
            zlog_error(g_zlog, "topic:%s has no payload template", local8(topic.topic).constData());
        return false;
    }
    return sendData(topic, render(text, when));
}

bool MqttClient::sendData(const topicData_t &topic, QByteArray payload)
{
    // What the broker would pass on to a parser that then chokes is better
    // not sent at all, and not kept either.
    QJsonParseError error;
    QJsonDocument::fromJson(payload, &error);
    int held = 0;
    if (error.error != QJsonParseError::NoError) {
        if (m_templateLog.allow(&held))
            zlog_error(g_zlog, "topic:%s %s paser fail", local8(topic.topic).constData(),
                       lumbra::maskSecrets(payload.left(1000)).constData());
        return false;
    }
    if (payload.size() > lumbra::forward::kMaxPayloadBytes) {
        if (m_templateLog.allow(&held))
            zlog_error(g_zlog, "topic:%s payload of %d bytes, more than %d, dropped", local8(topic.topic).constData(),
                       payload.size(), lumbra::forward::kMaxPayloadBytes);
        return false;
    }
    return publish(topic.topic, payload, timeText(QDateTime::currentDateTime()));
}

void MqttClient::sendAlarm(int index, int type, const QString &value, const QDateTime &when)
{
    QMutexLocker lock(&m_topicsMutex);
    for (topicData_t &t : m_pubTopics) {
        if (funcOf(t) != Func::AlarmSend || !lumbra::forward::topicWantsAlarm(t, index))
            continue;
        sendData(t, render(lumbra::forward::alarmTemplate(t), when, [&](const QString &name, Fill *out) {
                     return lumbra::forward::alarmVariable(name, index, type, value, out);
                 }));
    }
}

void MqttClient::publishOnline()
{
    QMutexLocker lock(&m_topicsMutex);
    for (const topicData_t &t : qAsConst(m_pubTopics)) {
        if (funcOf(t) != Func::OnlineMessage)
            continue;
        const QString text = lumbra::forward::templateOf(t);
        sendData(t, render(text.trimmed().isEmpty() ? kDefaultOnline : text, QDateTime::currentDateTime()));
    }
}

bool MqttClient::checkTri(topicData_t &topic)
{
    QString value;
    if (!RealData::getInstance()->GetDataByCode(topic.triIndex, value))
        return false;
    return lumbra::forward::triggerFires(topic, value);
}

bool MqttClient::due(const topicData_t &topic, qint64 second) const
{
    const int period = lumbra::forward::intervalSeconds(topic, m_settings.pushPeriod);
    return period > 0 && second % period == 0;
}

void MqttClient::publishDue(const QDateTime &now)
{
    const qint64 second = now.toSecsSinceEpoch();
    // Until the real-time service has read the points once there is nothing
    // to tell about them.
    const bool valuesRead = RealData::getInstance()->passes() > 0;
    QMutexLocker lock(&m_topicsMutex);
    for (topicData_t &t : m_pubTopics) {
        if (funcOf(t) != Func::RtdSend || (!valuesRead && !lumbra::forward::topicCodes(t).isEmpty()))
            continue;
        // The trigger is checked every second, so that it sees each change.
        const bool fired = t.triggerEnabled && checkTri(t);
        if ((fired || due(t, second)) && t.lastSentSecond != second) {
            t.lastSentSecond = second;
            sendData(t, now);
        }
    }
}

bool MqttClient::publish(const QString &topic, const QByteArray &payload, const QString &time)
{
    QMutexLocker lock(&m_sendMutex);
    if (!m_cache)
        return publishUncached(topic, payload);
    // Behind older cached messages a new one waits its turn, so that the
    // broker sees them all in order.
    if (!m_connected || m_cache->rows() > 0 || m_inflight.size() >= kMaxInflight) {
        cache(topic, payload, time);
        return false;
    }
    int mid = 0;
    const int rc = m_link->publish(topic.toUtf8(), payload, 1, &mid);
    if (rc == MOSQ_ERR_SUCCESS) {
        m_inflight.push_back(Pending{mid, 0, topic, payload, time});
        return true;
    }
    if (!connectionError(rc)) {
        dropped(topic, publishFailure(rc));
        return false;
    }
    takeBackInflight();
    cache(topic, payload, time);
    return false;
}

// Called with m_sendMutex held. QoS 0, as a server without a cache asks for:
// what cannot go now is gone.
bool MqttClient::publishUncached(const QString &topic, const QByteArray &payload)
{
    const int rc = m_connected ? m_link->publish(topic.toUtf8(), payload, 0, nullptr) : MOSQ_ERR_NO_CONN;
    if (rc == MOSQ_ERR_SUCCESS)
        return true;
    dropped(topic, connectionError(rc) ? "not connected and no offline cache" : publishFailure(rc));
    return false;
}

// Called with m_sendMutex held.
void MqttClient::dropped(const QString &topic, const QString &why)
{
    int held = 0;
    if (m_dropLogs[topic].allow(&held))
        zlog_error(g_zlog, "clientID:%s topic:%s message dropped: %s%s", local8(m_settings.clientId).constData(),
                   local8(topic.left(200)).constData(), local8(why).constData(),
                   held ? local8(QString(" (and %1 more since the last report)").arg(held)).constData() : "");
}

// Called with m_sendMutex held.
void MqttClient::cache(const QString &topic, const QByteArray &payload, const QString &time)
{
    m_cache->append({lumbra::forward::ForwardCache::Row{0, topic, payload, time}});
    m_dbDataNum = m_cache->rows();
}

// Called with m_sendMutex held. New messages the lost connection did not get
// acknowledged go to the cache ahead of what is there, which is all younger;
// cached ones never left it.
void MqttClient::takeBackInflight()
{
    QList<lumbra::forward::ForwardCache::Row> back;
    for (const Pending &p : m_inflight)
        if (p.rowid == 0)
            back.append({0, p.topic, p.payload, p.time});
    m_inflight.clear();
    m_drainAfter = kBeforeAllRows;
    if (!m_cache || back.isEmpty())
        return;
    flushAcked();
    m_cache->prepend(back);
    m_dbDataNum = m_cache->rows();
}

void MqttClient::published(int mid, int reason)
{
    QMutexLocker lock(&m_sendMutex);
    for (auto it = m_inflight.begin(); it != m_inflight.end(); ++it) {
        if (it->mid != mid)
            continue;
        // An MQTT 5 broker may refuse one message (its ACL, a topic or
        // payload it does not take): sending it again would end the same.
        if (reason >= 0x80)
            dropped(it->topic, QString("refused by the broker: %1 (0x%2)")
                                   .arg(mosquitto_reason_string(reason))
                                   .arg(reason, 2, 16, QChar('0')));
        if (it->rowid)
            m_acked.append(it->rowid);
        m_inflight.erase(it);
        return;
    }
}

bool MqttClient::settled()
{
    QMutexLocker lock(&m_sendMutex);
    return m_inflight.empty();
}

void MqttClient::serviceCache()
{
    QMutexLocker lock(&m_sendMutex);
    if (!m_cache)
        return;
    flushAcked();
    if (m_connected && m_cache->rows() > 0)
        drainCache();
}

// Called with m_sendMutex held.
void MqttClient::flushAcked()
{
    if (!m_cache)
        return;
    if (!m_acked.isEmpty()) {
        m_cache->remove(m_acked);
        m_acked.clear();
    }
    m_cache->compactIfEmptied();
    m_dbDataNum = m_cache->rows();
}

// Called with m_sendMutex held. The oldest rows not yet handed over, as many
// as the window has room for.
void MqttClient::drainCache()
{
    const int room = kDrainWindow - int(m_inflight.size());
    QList<qint64> dead;
    for (const auto &row : m_cache->after(m_drainAfter, room)) {
        int mid = 0;
        const int rc = m_link->publish(row.topic.toUtf8(), row.payload, 1, &mid);
        if (connectionError(rc))
            break;
        m_drainAfter = row.rowid;
        if (rc == MOSQ_ERR_SUCCESS) {
            m_inflight.push_back(Pending{mid, row.rowid, row.topic, QByteArray(), row.time});
            continue;
        }
        // A row no broker takes would block all behind it for ever.
        dropped(row.topic, "cached message cannot be sent: " + publishFailure(rc));
        dead.append(row.rowid);
    }
    if (!dead.isEmpty())
        m_cache->remove(dead);
    m_dbDataNum = m_cache->rows();
}

bool MqttClient::delCachedb(const int &n)
{
    QMutexLocker lock(&m_sendMutex);
    if (!m_cache)
        return false;
    const bool ok = m_cache->removeOldestAndCompact(n);
    m_dbDataNum = m_cache->rows();
    return ok;
}
