// What a forwarding client publishes, and its offline cache.
#include "MqttClient.h"

#include "MqttCliManager.h"
#include "mqtttopic.h"

#include "RealData/RealData.h"
#include "SQLiteDB/SQLiteDB.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/globals.h"

#include <QJsonDocument>

#include <mosquitto.h>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "MqttCliManager/MqttClient.cpp"

using lumbra::forward::Func;
using lumbra::forward::funcOf;

namespace {

const char kCacheTable[] = "mqttForward";
const char kDefaultOnline[] = "{\"sn\":\"%sn%\",\"status\":\"online\",\"datetime\":\"%datetime%\"}";
const int kDefaultCacheRows = 10000;
// on_publish should always come; if it ever did not, the list must not grow
// for years.
const size_t kMaxInflight = 1000;

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

QString timeText(const QDateTime &when)
{
    return when.toString("yyyy-MM-dd hh:mm:ss");
}

// A point that did not read keeps its last good value here, and its
// quality placeholder tells the subscriber that it is not current.
void fillValues(QString &text, const QList<int> &codes)
{
    RealData *rd = RealData::getInstance();
    for (int code : codes) {
        QString value;
        bool good = false;
        if (!rd->pointState(code, &value, &good)) {
            zlog_error(g_zlog, "not find rtd code :%d", code);
            continue;
        }
        lumbra::forward::fillPlaceholder(text, QString("value_%1").arg(code), value);
        lumbra::forward::fillPlaceholder(text, QString("quality_%1").arg(code), good ? "good" : "bad");
    }
}

}  // namespace

bool MqttClient::sendData(topicData_t &topic, const QDateTime &when)
{
    QString text = lumbra::forward::templateOf(topic);
    if (text.trimmed().isEmpty()) {
        zlog_error(g_zlog, "topic:%s has no payload template", local8(topic.topic).constData());
        return false;
    }
    fillValues(text, lumbra::forward::topicCodes(topic));
    lumbra::forward::fillPlaceholder(text, "sn", deviceInfo::getInstance()->sn());
    MqttCliManager::replaceSysVar(text, when);
    return sendData(topic, text.toUtf8());
}

bool MqttClient::sendData(const topicData_t &topic, QByteArray payload)
{
    // What the broker would pass on to a parser that then chokes is better
    // not sent at all, and not kept either.
    QJsonParseError error;
    QJsonDocument::fromJson(payload, &error);
    if (error.error != QJsonParseError::NoError) {
        zlog_error(g_zlog, "topic:%s %s paser fail", local8(topic.topic).constData(), payload.constData());
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
        QString text = lumbra::forward::alarmPayload(t, index, type, value);
        fillValues(text, lumbra::forward::topicCodes(t));
        lumbra::forward::fillPlaceholder(text, "sn", deviceInfo::getInstance()->sn());
        MqttCliManager::replaceSysVar(text, when);
        sendData(t, text.toUtf8());
    }
}

void MqttClient::publishOnline()
{
    QMutexLocker lock(&m_topicsMutex);
    for (const topicData_t &t : qAsConst(m_pubTopics)) {
        if (funcOf(t) != Func::OnlineMessage)
            continue;
        QString text = lumbra::forward::templateOf(t);
        if (text.trimmed().isEmpty())
            text = kDefaultOnline;
        lumbra::forward::fillPlaceholder(text, "sn", deviceInfo::getInstance()->sn());
        MqttCliManager::replaceSysVar(text, QDateTime::currentDateTime());
        sendData(t, text.toUtf8());
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
    QMutexLocker lock(&m_topicsMutex);
    for (topicData_t &t : m_pubTopics) {
        if (funcOf(t) != Func::RtdSend)
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
    if (!m_connected || !m_mosq) {
        cacheMessage(topic, payload, time);
        return false;
    }
    const int rc = publishNow(topic, payload, time);
    if (rc == MOSQ_ERR_SUCCESS)
        return true;
    zlog_error(g_zlog, "topic:%s publish fail:%s", local8(topic).constData(), mosquitto_strerror(rc));
    // Older messages first, so that the cache keeps their order.
    cacheInflight();
    cacheMessage(topic, payload, time);
    return false;
}

// Called with m_sendMutex held.
int MqttClient::publishNow(const QString &topic, const QByteArray &payload, const QString &time)
{
    int mid = 0;
    const int rc = mosquitto_publish(m_mosq.get(), &mid, topic.toUtf8().constData(),
                                     static_cast<int>(qstrlen(payload.constData())), payload.constData(), 0, false);
    if (rc != MOSQ_ERR_SUCCESS)
        return rc;
    if (m_inflight.size() >= kMaxInflight)
        m_inflight.pop_front();
    m_inflight.push_back(Pending{mid, topic, payload, time});
    return rc;
}

void MqttClient::onPublish(int mid)
{
    QMutexLocker lock(&m_sendMutex);
    for (auto it = m_inflight.begin(); it != m_inflight.end(); ++it) {
        if (it->mid == mid) {
            m_inflight.erase(it);
            return;
        }
    }
}

// Called with m_sendMutex held.
void MqttClient::cacheInflight()
{
    std::deque<Pending> lost;
    lost.swap(m_inflight);
    for (const Pending &p : lost)
        cacheMessage(p.topic, p.payload, p.time);
}

// Called with m_sendMutex held.
void MqttClient::cacheMessage(const QString &topic, const QByteArray &payload, const QString &time)
{
    if (!m_db) {
        zlog_info(g_zlog, "topic:%s not connected, message dropped (no offline cache)", local8(topic).constData());
        return;
    }
    trimCache();
    const QString sql = QString("INSERT INTO %1 VALUES('%2','%3','%4')")
                            .arg(kCacheTable, sqlQuote(topic), sqlQuote(QString::fromUtf8(payload)), sqlQuote(time));
    if (m_db->insert(sql.toStdString()))
        ++m_dbDataNum;
}

// The oldest tenth goes when the cache is full: one compaction per tenth
// rather than one per message.
void MqttClient::trimCache()
{
    const unsigned limit = m_settings.cacheNum > 0 ? unsigned(m_settings.cacheNum) : kDefaultCacheRows;
    if (m_dbDataNum < limit)
        return;
    const int count = static_cast<int>(qMax(1u, limit / 10));
    delCachedb(count);
    zlog_info(g_zlog, "del db count:%d m_dbDataNum:%d", count, static_cast<int>(m_dbDataNum));
}

bool MqttClient::delCachedb(const int &n)
{
    if (!m_db)
        return false;
    const bool ok = m_db->del(
        QString("delete from %1 where rowid in (select rowid from %1 limit %2)").arg(kCacheTable).arg(n).toStdString());
    if (ok)
        m_db->VACUUM();
    m_dbDataNum = m_db->dataNum(kCacheTable);
    return ok;
}

bool MqttClient::drainOne()
{
    QMutexLocker lock(&m_sendMutex);
    if (!m_db || !m_connected || !m_mosq)
        return false;
    const std::string sql = "select * from mqttForward limit 1";
    QStringList row;
    if (!m_db->select(sql, row) || row.size() < 3) {
        zlog_info(g_zlog, "sql:%s data isEmpty", sql.c_str());
        m_dbDataNum = m_db->dataNum(kCacheTable);
        return false;
    }
    // A failed publish keeps the row for the next pass.
    if (publishNow(row.at(0), row.at(1).toUtf8(), row.at(2)) != MOSQ_ERR_SUCCESS)
        return false;
    return delCachedb(1);
}
