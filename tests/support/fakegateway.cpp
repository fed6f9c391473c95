#include "fakegateway.h"

#include "testsupport.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QThread>


namespace lumbra::test {
namespace {

const qint64 kFirstSecond = 1000000;

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

}  // namespace

FakeGateway::FakeGateway(int brokerPort, const QString &serial, int resendMs)
    : m_serial(serial), m_resendMs(resendMs), m_reqId(QRandomGenerator::global()->generate()),
      m_client(brokerPort, prefix() + "/DevRecv/#",
               [this](const QByteArray &topic, const QByteArray &payload) { received(topic, payload); })
{
    m_thread = std::thread([this] { loop(); });
}

FakeGateway::~FakeGateway()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

bool FakeGateway::connected(int timeoutMs) const
{
    return m_client.connected(timeoutMs);
}

bool FakeGateway::publish(const QByteArray &shortTopic, const QByteArray &payload)
{
    ++m_published;
    return m_client.publish(prefix() + shortTopic, payload);
}

void FakeGateway::addHistory(quint32 group, int rows, bool equalPairs)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Group &g = m_groups[group];
        for (int n = 0; n < rows; ++n) {
            const qint64 k = g.added++;
            const Row r{kFirstSecond + k, QString("%1 g%2 #%3").arg(m_serial).arg(group).arg(k).toUtf8(), g.ids++};
            g.rows.push_back(r);
            if (equalPairs)
                g.rows.push_back({r.time, r.text, g.ids++});
        }
    }
    m_wake.notify_all();
}

void FakeGateway::addAlarms(int events)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (int i = 0; i < events; ++i, ++m_alarmsAdded)
            m_alarms.push_back({1, m_alarmsAdded % 2 ? 2 : 1, kFirstSecond + m_alarmsAdded / 2});
    }
    m_wake.notify_all();
}

void FakeGateway::missAcks(int ms)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_deafUntilMs = nowMs() + ms;
    }
    QThread::msleep(static_cast<unsigned long>(ms));
    restart();
}

void FakeGateway::restart()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (Group &g : m_groups)
            g = Group{std::move(g.rows), g.added, g.ids};
        m_alarmInFlight = false;
        m_reqId = QRandomGenerator::global()->generate();
    }
    m_wake.notify_all();
}

int FakeGateway::historyLeft() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const Group &g : m_groups)
        n += static_cast<int>(g.rows.size());
    return n;
}

int FakeGateway::alarmsLeft() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_alarms.size());
}

void FakeGateway::received(const QByteArray &topic, const QByteArray &payload)
{
    const QJsonObject o = QJsonDocument::fromJson(payload).object();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (nowMs() < m_deafUntilMs)
            return;
        if (topic.endsWith("/DevRecv/HisData")) {
            auto it = m_groups.find(static_cast<quint32>(o.value("group_id").toInt()));
            if (it == m_groups.end())
                return;
            if (it->staleAcks > 0 && nowMs() < it->settleUntilMs) {
                --it->staleAcks;
                return;
            }
            // As the gateway: an acknowledgement with no batch in flight deletes nothing.
            if (it->inFlight == 0)
                return;
            it->rows.erase(it->rows.begin(), it->rows.begin() + it->inFlight);
            it->inFlight = 0;
            it->staleAcks = it->posts - 1;
            it->settleUntilMs = nowMs() + 2000;
            it->posts = 0;
        } else if (topic.endsWith("/DevRecv/MsgAck")) {
            if (!m_alarmInFlight || o.value("reqId").toString() != QString::number(m_reqId))
                return;
            m_alarms.pop_front();
            m_alarmInFlight = false;
            ++m_reqId;
        } else {
            return;
        }
    }
    m_wake.notify_all();
}

void FakeGateway::loop()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        if (m_client.connected(0) && nowMs() >= m_deafUntilMs)
            sendDue();
        m_wake.wait_for(lock, std::chrono::milliseconds(50));
    }
}

// Called with m_mutex held.
void FakeGateway::sendDue()
{
    const qint64 now = nowMs();
    for (auto it = m_groups.begin(); it != m_groups.end(); ++it) {
        Group &g = *it;
        const bool settling = g.staleAcks > 0 && now < g.settleUntilMs;
        if (!g.rows.empty() && !settling && (g.inFlight == 0 || now - g.sentMs >= m_resendMs))
            sendBatch(it.key(), g);
    }
    if (!m_alarms.empty() && (!m_alarmInFlight || now - m_alarmSentMs >= m_resendMs))
        sendAlarm();
}

void FakeGateway::sendBatch(quint32 id, Group &g)
{
    if (g.inFlight == 0)
        g.inFlight = std::min(static_cast<int>(g.rows.size()), m_batchRows.load());
    QByteArray rows;
    for (int i = 0; i < g.inFlight; ++i) {
        const Row &r = g.rows[static_cast<size_t>(i)];
        rows += (i ? ",{" : "{") + QByteArray("\"data_text\":\"") + r.text + "\",\"data_time\":\"" +
                QByteArray::number(r.time) + "\"";
        rows += m_rowIds ? ",\"row_id\":" + QByteArray::number(r.id) + "}" : QByteArray("}");
    }
    publish("/DevSend/Sequential/HisData", "{\"sn_code\":\"" + m_serial.toUtf8() + "\",\"group_id\":" +
                                               QByteArray::number(id) + ",\"data_samples\":\"0_0\",\"data\":[" + rows +
                                               "]}");
    g.sentMs = nowMs();
    ++g.posts;
}

void FakeGateway::sendAlarm()
{
    const Event &e = m_alarms.front();
    const QByteArray note = e.type == 1 ? "ON" : "OFF";
    publish(e.type == 1 ? "/DevSend/Alarm" : "/DevSend/AlarmRecover",
            "{\"alarm_index\":" + QByteArray::number(e.index) + ",\"alarm_level\":2,\"alarm_note\":\"" + note +
                "\",\"alarm_time\":\"" + QByteArray::number(e.time) + "\",\"sn_code\":\"" + m_serial.toUtf8() +
                "\",\"reqId\":\"" + QByteArray::number(m_reqId) + "\"}");
    m_alarmInFlight = true;
    m_alarmSentMs = nowMs();
}

}  // namespace lumbra::test
