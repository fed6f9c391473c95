#include "MqttClient.h"

#include "mqttcache.h"
#include "mqttconfig.h"
#include "mqttconnection.h"
#include "mqttpayload.h"
#include "mqtttopic.h"

#include "IotToMqttComm/MqttMsgEvent.h"
#include "Outbox/Outbox.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/secrets.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <mosquitto.h>

using lumbra::forward::Func;
using lumbra::forward::funcOf;

namespace {

const char kStatusTopic[] = "/DevSend/DataforwardMqttConnectStatus";
const char kDefaultWill[] = "{\"sn\":\"%sn%\",\"status\":\"offline\"}";
const int kDefaultCacheRows = 10000;

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

// A write request as "/DevRecv/WriteData" takes it: the array itself, or an
// object that carries it in "data".
QString writeRequest(const QByteArray &payload)
{
    const QJsonDocument doc = QJsonDocument::fromJson(payload);
    if (doc.isObject() && doc.object().value("data").isArray())
        return QString::fromUtf8(QJsonDocument(doc.object().value("data").toArray()).toJson(QJsonDocument::Compact));
    return QString::fromUtf8(payload);
}

}  // namespace

MqttClient::MqttClient(const Settings &settings) : m_settings(settings)
{
}

MqttClient::~MqttClient()
{
    destroyClient();
}

bool MqttClient::refused() const
{
    return m_link && m_link->refused();
}

void MqttClient::init()
{
    if (m_settings.useOfflineCache && !m_cache)
        openCache();
    if (!m_link)
        m_link = std::make_unique<lumbra::forward::MqttConnection>(m_settings, static_cast<LinkOwner *>(this));
    m_link->start();
    zlog_info(g_zlog, "clientId:%s server_config_id:%d %s:%d%s init end", local8(m_settings.clientId).constData(),
              m_settings.configId, local8(m_settings.host).constData(), m_settings.port,
              m_settings.tls() ? " (TLS)" : "");
}

void MqttClient::openCache()
{
    using lumbra::forward::ForwardCache;
    const QString path = ForwardCache::fileFor(m_settings.cacheDir, m_settings.configId);
    const QString legacy = QString("%1/%2Mqtt.db").arg(m_settings.cacheDir, m_settings.legacyCacheName);
    if (!m_settings.legacyCacheName.isEmpty() && !QFile::exists(path) && QFile::exists(legacy)) {
        const bool moved = QFile::rename(legacy, path);
        zlog_info(g_zlog, "clientId:%s cache %s %s %s", local8(m_settings.clientId).constData(),
                  local8(legacy).constData(), moved ? "taken over as" : "could not be moved to", local8(path).constData());
    }
    const unsigned limit = m_settings.cacheNum > 0 ? unsigned(m_settings.cacheNum) : kDefaultCacheRows;
    m_cache = std::make_unique<ForwardCache>(path, limit);
    if (!m_cache->isOpen()) {
        zlog_error(g_zlog, "clientId:%s offline cache %s unusable, messages not sent are lost",
                   local8(m_settings.clientId).constData(), local8(path).constData());
        m_cache.reset();
        return;
    }
    m_dbDataNum = m_cache->rows();
    zlog_info(g_zlog, "m_dbDataNum:%d", static_cast<int>(m_dbDataNum));
}

// The broker publishes the will when the box goes silent; it is set anew
// for each connection.
bool MqttClient::will(QByteArray *topic, QByteArray *payload)
{
    QMutexLocker lock(&m_topicsMutex);
    for (const topicData_t &t : qAsConst(m_pubTopics)) {
        if (funcOf(t) != Func::WillMessage)
            continue;
        const QString text = lumbra::forward::templateOf(t);
        *payload = render(text.trimmed().isEmpty() ? kDefaultWill : text, QDateTime::currentDateTime());
        *topic = t.topic.toUtf8();
        return true;
    }
    return false;
}

void MqttClient::linkUp()
{
    const bool wasDown = !m_connected.exchange(true);
    subscribeAll();
    publishOnline();
    // Last: the report goes through the agent, which may take seconds to
    // accept it, and the broker side must not wait for that.
    if (wasDown)
        sendStatus(true);
}

void MqttClient::linkDown()
{
    {
        QMutexLocker lock(&m_sendMutex);
        takeBackInflight();
    }
    if (m_connected.exchange(false))
        sendStatus(false);
}

void MqttClient::sendStatus(bool connected)
{
    const QString text = QString("{\"config_id\":%1,\"sn_code\":\"%2\",\"status\":%3}")
                             .arg(m_settings.configId)
                             .arg(deviceInfo::getInstance()->sn())
                             .arg(connected ? 1 : 0);
    Outbox::getInstance()->post(kStatusTopic, text, false, 0, Outbox::Ordered);
}

void MqttClient::subscribeAll()
{
    QMutexLocker lock(&m_topicsMutex);
    for (const topicData_t &t : qAsConst(m_subTopics)) {
        const int rc = m_link->subscribe(t.topic.toUtf8());
        zlog_info(g_zlog, "clientID:%s subscribe %s rc:%d", local8(m_settings.clientId).constData(),
                  local8(t.topic).constData(), rc);
    }
}

void MqttClient::received(const mosquitto_message *message)
{
    const QByteArray payload(static_cast<const char *>(message->payload), message->payloadlen);
    QList<Func> funcs;
    {
        QMutexLocker lock(&m_topicsMutex);
        for (const topicData_t &t : qAsConst(m_subTopics)) {
            bool match = false;
            mosquitto_topic_matches_sub(t.topic.toUtf8().constData(), message->topic, &match);
            if (match)
                funcs << funcOf(t);
        }
    }
    for (Func f : funcs) {
        if (f == Func::WriteRealData) {
            zlog_info(g_zlog, "topic:%s write:%s", message->topic, lumbra::maskSecrets(payload).constData());
            MqttMsgEvent::WriteRTD(writeRequest(payload));
        } else if (f == Func::Reboot && message->retain) {
            // A retained request would reboot the box again at every connect.
            zlog_error(g_zlog, "topic:%s retained reboot request ignored", message->topic);
        } else if (f == Func::Reboot) {
            zlog_info(g_zlog, "topic:%s reboot requested", message->topic);
            unitTool::execute_system_command("reboot");
        }
    }
}

// A topic no broker takes, or one in the wrong list, is logged and left out.
bool MqttClient::acceptable(const topicData_t &topic, bool subscribe) const
{
    QString problem = lumbra::forward::topicProblem(topic);
    if (problem.isEmpty() && lumbra::forward::isSubscribeFunc(funcOf(topic)) != subscribe)
        problem = subscribe ? "a publishing function" : "a subscription function";
    if (problem.isEmpty())
        return true;
    zlog_error(g_zlog, "server_config_id:%d %s topic \"%s\" refused: %s", m_settings.configId,
               subscribe ? "subscribe" : "publish", local8(topic.topic.left(200)).constData(),
               local8(problem).constData());
    return false;
}

bool MqttClient::addPubTopicData(topicData_t &topic)
{
    if (!acceptable(topic, false))
        return false;
    QMutexLocker lock(&m_topicsMutex);
    m_pubTopics.append(topic);
    return true;
}

bool MqttClient::addSubTopicData(topicData_t &topic)
{
    if (!acceptable(topic, true))
        return false;
    QMutexLocker lock(&m_topicsMutex);
    m_subTopics.append(topic);
    if (m_connected && m_link)
        m_link->subscribe(topic.topic.toUtf8());
    return true;
}

void MqttClient::removePubTopicData(const int &configId)
{
    QMutexLocker lock(&m_topicsMutex);
    for (int i = m_pubTopics.size() - 1; i >= 0; --i)
        if (m_pubTopics.at(i).serverConfigId == configId)
            m_pubTopics.removeAt(i);
}

void MqttClient::removeSubTopicData(const int &configId)
{
    QMutexLocker lock(&m_topicsMutex);
    for (int i = m_subTopics.size() - 1; i >= 0; --i) {
        if (m_subTopics.at(i).serverConfigId != configId)
            continue;
        if (m_connected && m_link)
            m_link->unsubscribe(m_subTopics.at(i).topic.toUtf8());
        m_subTopics.removeAt(i);
    }
}

QList<MqttClient::topicData_t> MqttClient::pubTopics() const
{
    QMutexLocker lock(&m_topicsMutex);
    return m_pubTopics;
}

QList<MqttClient::topicData_t> MqttClient::subTopics() const
{
    QMutexLocker lock(&m_topicsMutex);
    return m_subTopics;
}

// The publishing thread first, so that nothing new is handed over while the
// connection says goodbye; what is still unacknowledged then goes to the
// cache for the next start.
void MqttClient::destroyClient()
{
    m_stopping = true;
    if (isRunning())
        wait();
    m_link.reset();
    m_connected = false;
    QMutexLocker lock(&m_sendMutex);
    flushAcked();
    m_cache.reset();
}

void MqttClient::run()
{
    zlog_info(g_zlog, "%s thread start", local8(m_settings.clientId).constData());
    qint64 lastSecond = -1;
    while (!m_stopping) {
        unitTool::delay_ms(100);
        if (m_stopping)
            break;
        const QDateTime now = QDateTime::currentDateTime();
        const qint64 second = now.toSecsSinceEpoch();
        if (second != lastSecond) {
            lastSecond = second;
            publishDue(now);
        }
        serviceCache();
    }
    zlog_info(g_zlog, "%s thread end", local8(m_settings.clientId).constData());
}
