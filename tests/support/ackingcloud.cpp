#include "ackingcloud.h"

#include "testsupport.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>

#include <mosquitto.h>

namespace lumbra::test {

namespace {

void onMessage(mosquitto *, void *obj, const mosquitto_message *m)
{
    static_cast<AckingCloud *>(obj)->received(m->topic,
                                              QByteArray(static_cast<const char *>(m->payload), m->payloadlen));
}

void onConnect(mosquitto *mosq, void *obj, int rc)
{
    if (rc != 0)
        return;
    // A clean session forgets subscriptions: renew them on every connect.
    mosquitto_subscribe(mosq, nullptr, "#", 1);
    static_cast<AckingCloud *>(obj)->setConnected(true);
}

void onDisconnect(mosquitto *, void *obj, int)
{
    static_cast<AckingCloud *>(obj)->setConnected(false);
}

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

}  // namespace

AckingCloud::AckingCloud(int brokerPort, const QString &prefix, int ackDelayMs)
    : m_prefix(prefix), m_delayMs(ackDelayMs)
{
    mosquitto_lib_init();
    m_mosq = mosquitto_new(nullptr, true, this);
    mosquitto_message_callback_set(m_mosq, onMessage);
    mosquitto_connect_callback_set(m_mosq, onConnect);
    mosquitto_disconnect_callback_set(m_mosq, onDisconnect);
    mosquitto_reconnect_delay_set(m_mosq, 1, 1, false);
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_async(m_mosq, "127.0.0.1", brokerPort, 10);
    mosquitto_loop_start(m_mosq);
    m_acker = std::thread([this] { ackLoop(); });
}

AckingCloud::~AckingCloud()
{
    {
        std::lock_guard<std::mutex> lock(m_ackMutex);
        m_stop = true;
    }
    m_ackReady.notify_all();
    m_acker.join();
    mosquitto_disconnect(m_mosq);
    mosquitto_loop_stop(m_mosq, true);
    mosquitto_destroy(m_mosq);
}

bool AckingCloud::connected(int timeoutMs) const
{
    return eventually([&] { return m_connected.load(); }, timeoutMs);
}

void AckingCloud::setConnected(bool up)
{
    m_connected = up;
}

void AckingCloud::received(const QString &topic, const QByteArray &payload)
{
    if (!topic.startsWith(m_prefix + "/DevSend/"))
        return;
    const QString shortTopic = topic.mid(m_prefix.size());
    const QJsonObject msg = QJsonDocument::fromJson(payload).object();
    QMutexLocker lock(&m_mutex);
    if (shortTopic.startsWith("/DevSend/RTD")) {
        ++m_realTime;
    } else if (shortTopic.startsWith("/DevSend/Alarm")) {
        m_alarms << msg;
        const QJsonObject ack{{"reqTopic", shortTopic}, {"reqId", msg.value("reqId")}};
        ackLater("/DevRecv/MsgAck", QJsonDocument(ack).toJson(QJsonDocument::Compact));
    } else if (shortTopic.startsWith("/DevSend/Sequential/HisData")) {
        const int group = msg.value("group_id").toInt();
        for (const QJsonValue &row : msg.value("data").toArray())
            m_rows << QString("%1@%2").arg(group).arg(row["data_time"].toString());
        const QJsonObject ack{{"status", "yes"}, {"group_id", group}};
        ackLater("/DevRecv/HisData", QJsonDocument(ack).toJson(QJsonDocument::Compact));
    }
}

void AckingCloud::ackLater(const QString &shortTopic, const QByteArray &payload)
{
    {
        std::lock_guard<std::mutex> lock(m_ackMutex);
        m_acks.push_back({nowMs() + m_delayMs, m_prefix + shortTopic, payload});
    }
    m_ackReady.notify_all();
}

void AckingCloud::ackLoop()
{
    std::unique_lock<std::mutex> lock(m_ackMutex);
    while (!m_stop) {
        if (m_acks.empty()) {
            m_ackReady.wait(lock);
            continue;
        }
        const qint64 wait = m_acks.front().dueMs - nowMs();
        if (wait > 0) {
            m_ackReady.wait_for(lock, std::chrono::milliseconds(wait));
            continue;
        }
        const Ack ack = m_acks.front();
        m_acks.pop_front();
        lock.unlock();
        mosquitto_publish(m_mosq, nullptr, ack.topic.toUtf8().constData(), ack.payload.size(), ack.payload.constData(),
                          1, false);
        lock.lock();
    }
}

QList<QJsonObject> AckingCloud::alarms() const
{
    QMutexLocker lock(&m_mutex);
    return m_alarms;
}

QStringList AckingCloud::historyRows() const
{
    QMutexLocker lock(&m_mutex);
    return m_rows;
}

int AckingCloud::realTimeCount() const
{
    QMutexLocker lock(&m_mutex);
    return m_realTime;
}

}  // namespace lumbra::test
