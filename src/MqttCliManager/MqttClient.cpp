#include "MqttClient.h"

#include "MqttCliManager.h"
#include "mqtttopic.h"

#include "Outbox/Outbox.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "SQLiteDB/SQLiteDB.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <mosquitto.h>

using lumbra::forward::Func;
using lumbra::forward::funcOf;

namespace {

const char kStatusTopic[] = "/DevSend/DataforwardMqttConnectStatus";
const char kCacheTable[] = "mqttForward";
const char kDefaultWill[] = "{\"sn\":\"%sn%\",\"status\":\"offline\"}";

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

MqttClient *clientOf(void *obj)
{
    return static_cast<MqttClient *>(obj);
}

void connectCallback(mosquitto *, void *obj, int rc)
{
    if (obj)
        clientOf(obj)->onConnect(rc);
}

void disconnectCallback(mosquitto *, void *obj, int rc)
{
    if (obj)
        clientOf(obj)->onDisconnect(rc);
}

void messageCallback(mosquitto *, void *obj, const mosquitto_message *message)
{
    if (obj && message)
        clientOf(obj)->onMessage(message);
}

void publishCallback(mosquitto *, void *obj, int mid)
{
    if (obj)
        clientOf(obj)->onPublish(mid);
}

void subscribeCallback(mosquitto *, void *, int, int, const int *)
{
}

void logCallback(mosquitto *, void *, int, const char *)
{
}

int protocolVersion(int configured)
{
    switch (configured) {
    case 3: return MQTT_PROTOCOL_V31;
    case 5: return MQTT_PROTOCOL_V5;
    default: return MQTT_PROTOCOL_V311;
    }
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

void MqttClient::MosqDeleter::operator()(mosquitto *m) const
{
    mosquitto_destroy(m);
}

MqttClient::MqttClient(const Settings &settings) : m_settings(settings)
{
}

MqttClient::~MqttClient()
{
    destroyClient();
}

void MqttClient::init()
{
    if (!m_mosq) {
        const QByteArray id = m_settings.clientId.toUtf8();
        m_mosq.reset(mosquitto_new(id.isEmpty() ? nullptr : id.constData(), true, this));
        if (!m_mosq) {
            zlog_error(g_zlog, "Error: Out of memory.");
            return;
        }
    }
    if (m_settings.useOfflineCache && !m_db)
        openCache();
    if (!m_callbacksSet)
        setCallbacks();
    mosquitto *m = m_mosq.get();
    mosquitto_int_option(m, MOSQ_OPT_PROTOCOL_VERSION, protocolVersion(m_settings.mqttVersion));
    if (m_settings.useAuthentication)
        mosquitto_username_pw_set(m, m_settings.userName.toUtf8().constData(), m_settings.password.toUtf8().constData());
    mosquitto_reconnect_delay_set(m, 5, 120, true);
    setWill();
    // Connect first: a network thread started before it would find no
    // socket, sleep out a reconnect delay and then tear down the connection
    // just made. When this first attempt fails, that thread retries.
    const int rc = mosquitto_connect_async(m, m_settings.host.toUtf8().constData(), m_settings.port,
                                           m_settings.keepAlive);
    if (rc != MOSQ_ERR_SUCCESS)
        zlog_error(g_zlog, "clientId:%s connect %s:%d fail:%s, retrying", local8(m_settings.clientId).constData(),
                   local8(m_settings.host).constData(), m_settings.port, mosquitto_strerror(rc));
    m_loopStarted = mosquitto_loop_start(m) == MOSQ_ERR_SUCCESS;
    zlog_info(g_zlog, "clientId:%s m_mosq:%p init end", local8(m_settings.clientId).constData(),
              static_cast<void *>(m));
}

void MqttClient::openCache()
{
    QDir().mkpath(m_settings.cacheDir);
    const QString name = m_settings.clientId.isEmpty() ? QString("server%1").arg(m_settings.configId)
                                                       : lumbra::forward::fileSafe(m_settings.clientId);
    const QString path = QString("%1/%2Mqtt.db").arg(m_settings.cacheDir, name);
    m_db.reset(new SQLiteDB(path.toLocal8Bit().constData()));
    if (!m_db->isOpen() ||
        !m_db->executeSQL(QString("CREATE TABLE IF NOT EXISTS %1 (topic TEXT, data TEXT, datetime TEXT);")
                              .arg(kCacheTable)
                              .toStdString())) {
        zlog_error(g_zlog, "clientId:%s offline cache %s unusable, messages not sent are lost",
                   local8(m_settings.clientId).constData(), local8(path).constData());
        m_db.reset();
        return;
    }
    m_dbDataNum = m_db->dataNum(kCacheTable);
    zlog_info(g_zlog, "m_dbDataNum:%d", static_cast<int>(m_dbDataNum));
}

void MqttClient::setCallbacks()
{
    mosquitto *m = m_mosq.get();
    mosquitto_connect_callback_set(m, connectCallback);
    mosquitto_subscribe_callback_set(m, subscribeCallback);
    mosquitto_message_callback_set(m, messageCallback);
    mosquitto_disconnect_callback_set(m, disconnectCallback);
    mosquitto_publish_callback_set(m, publishCallback);
    mosquitto_log_callback_set(m, logCallback);
    m_callbacksSet = true;
}

// The broker publishes the will when the box goes silent; it takes effect
// with the next connection.
void MqttClient::setWill()
{
    if (!m_mosq)
        return;
    QMutexLocker lock(&m_topicsMutex);
    for (const topicData_t &t : qAsConst(m_pubTopics)) {
        if (funcOf(t) != Func::WillMessage)
            continue;
        QString text = lumbra::forward::templateOf(t).trimmed().isEmpty() ? kDefaultWill : lumbra::forward::templateOf(t);
        lumbra::forward::fillPlaceholder(text, "sn", deviceInfo::getInstance()->sn());
        MqttCliManager::replaceSysVar(text, QDateTime::currentDateTime());
        const QByteArray payload = text.toUtf8();
        mosquitto_will_set(m_mosq.get(), t.topic.toUtf8().constData(), payload.size(), payload.constData(), 0, false);
        return;
    }
    mosquitto_will_clear(m_mosq.get());
}

void MqttClient::onConnect(int rc)
{
    zlog_info(g_zlog, "clientID:%s m_mosq:%p reason_code:%d", local8(m_settings.clientId).constData(),
              static_cast<void *>(m_mosq.get()), rc);
    // 4 and 5 are both the broker refusing the account: retrying cannot
    // help and would hammer it, so the client stays down until reconfigured.
    if (rc == 4 || rc == 5) {
        zlog_error(g_zlog, "clientID:%s MOSQ_ERR_CONN_REFUSED", local8(m_settings.clientId).constData());
        m_refused = true;
        mosquitto_disconnect(m_mosq.get());
        return;
    }
    if (rc != 0)
        return;
    const bool wasDown = !m_connected.exchange(true);
    subscribeAll();
    publishOnline();
    // Last: the report goes through the agent, which may take seconds to
    // accept it, and the broker side must not wait for that.
    if (wasDown)
        sendStatus(true);
}

void MqttClient::onDisconnect(int rc)
{
    if (rc == 5 || m_refused)
        return;
    {
        QMutexLocker lock(&m_sendMutex);
        cacheInflight();
    }
    if (m_connected.exchange(false)) {
        sendStatus(false);
        zlog_info(g_zlog, "clientID:%s m_mosq:%p reason_code:%d", local8(m_settings.clientId).constData(),
                  static_cast<void *>(m_mosq.get()), rc);
    }
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
        const int rc = mosquitto_subscribe(m_mosq.get(), nullptr, t.topic.toUtf8().constData(), 0);
        zlog_info(g_zlog, "clientID:%s subscribe %s rc:%d", local8(m_settings.clientId).constData(),
                  local8(t.topic).constData(), rc);
    }
}

void MqttClient::onMessage(const mosquitto_message *message)
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
            zlog_info(g_zlog, "topic:%s write:%s", message->topic, payload.constData());
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

void MqttClient::addPubTopicData(topicData_t &topic)
{
    {
        QMutexLocker lock(&m_topicsMutex);
        m_pubTopics.append(topic);
    }
    if (funcOf(topic) == Func::WillMessage)
        setWill();
}

void MqttClient::addSubTopicData(topicData_t &topic)
{
    QMutexLocker lock(&m_topicsMutex);
    m_subTopics.append(topic);
    if (m_connected)
        mosquitto_subscribe(m_mosq.get(), nullptr, topic.topic.toUtf8().constData(), 0);
}

void MqttClient::removePubTopicData(const int &configId)
{
    bool will = false;
    {
        QMutexLocker lock(&m_topicsMutex);
        for (int i = m_pubTopics.size() - 1; i >= 0; --i) {
            if (m_pubTopics.at(i).serverConfigId != configId)
                continue;
            will = will || funcOf(m_pubTopics.at(i)) == Func::WillMessage;
            m_pubTopics.removeAt(i);
        }
    }
    if (will)
        setWill();
}

void MqttClient::removeSubTopicData(const int &configId)
{
    QMutexLocker lock(&m_topicsMutex);
    for (int i = m_subTopics.size() - 1; i >= 0; --i) {
        if (m_subTopics.at(i).serverConfigId != configId)
            continue;
        if (m_connected)
            mosquitto_unsubscribe(m_mosq.get(), nullptr, m_subTopics.at(i).topic.toUtf8().constData());
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

void MqttClient::destroyClient()
{
    m_running = false;
    if (isRunning())
        wait();
    if (m_mosq) {
        mosquitto_disconnect(m_mosq.get());
        if (m_loopStarted)
            mosquitto_loop_stop(m_mosq.get(), false);
        m_loopStarted = false;
        m_mosq.reset();
    }
    m_connected = false;
    m_db.reset();
}

void MqttClient::run()
{
    m_running = true;
    zlog_info(g_zlog, "%s thread start", local8(m_settings.clientId).constData());
    qint64 lastSecond = -1;
    while (m_running) {
        unitTool::delay_ms(100);
        if (!m_running)
            break;
        const QDateTime now = QDateTime::currentDateTime();
        const qint64 second = now.toSecsSinceEpoch();
        if (second != lastSecond) {
            lastSecond = second;
            publishDue(now);
        }
        if (m_connected && m_dbDataNum > 0)
            drainOne();
    }
    zlog_info(g_zlog, "%s thread end", local8(m_settings.clientId).constData());
}
