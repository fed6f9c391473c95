#include "ackingcloud.h"

#include "testsupport.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>

namespace lumbra::test {

namespace {

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

}  // namespace

AckingCloud::AckingCloud(int brokerPort, const QString &prefix, int ackDelayMs)
    : m_prefix(prefix), m_delayMs(ackDelayMs),
      m_client(brokerPort, "#", [this](const QByteArray &topic, const QByteArray &payload) { received(topic, payload); })
{
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
}

bool AckingCloud::connected(int timeoutMs) const
{
    return m_client.connected(timeoutMs);
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
        m_client.publish(ack.topic.toUtf8(), ack.payload, 1);
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
