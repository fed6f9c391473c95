#include "Outbox.h"

#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QElapsedTimer>

#include <algorithm>

namespace {

// Screens and scripts see the cloud link through this local word (two
// cells: the state as a 32-bit integer).
const int kCloudStateWord = 60830;

}  // namespace

// Never destroyed: services and the bridge may still post or take while
// other singletons go down at the end of the process.
Outbox *Outbox::getInstance()
{
    static Outbox *instance = new Outbox;
    return instance;
}

bool Outbox::post(const QString &topic, const QString &payload, bool zip, int qos, Kind kind)
{
    return postUtf8(topic, payload.toUtf8(), zip, qos, kind);
}

// The envelope is written by hand: a real-time upload of thousands of points
// would otherwise be copied four times over on its way through a JSON document.
QByteArray Outbox::envelopeHead(const QString &topic, int qos, int payloadBytes)
{
    QByteArray text;
    text.reserve(payloadBytes + topic.size() + 96);
    text.append("{\"topic\":");
    lumbra::appendJsonString(text, QString("/%1_%2%3").arg(deviceInfo::getInstance()->sn(), g_IotVersion, topic));
    text.append(",\"qos\":").append(QByteArray::number(qos)).append(",\"msg\":\"");
    return text;
}

bool Outbox::postEnvelope(const QString &topic, QByteArray text, bool zip, Kind kind)
{
    if (kind == Stored && !m_cloudUp)
        return false;
    text.append("\",\"zip\":").append(zip ? "true" : "false").append('}');
    return enqueue({{std::move(text), kind}, topic});
}

bool Outbox::postUtf8(const QString &topic, const QByteArray &payload, bool zip, int qos, Kind kind)
{
    if (kind == Stored && !m_cloudUp)
        return false;
    // The payload is JSON itself: every quote in it gains a backslash, about
    // one byte in five of a real-time upload.
    QByteArray text = envelopeHead(topic, qos, payload.size() + payload.size() / 4);
    lumbra::appendJsonEscaped(text, payload.constData(), payload.size());
    return postEnvelope(topic, std::move(text), zip, kind);
}

bool Outbox::postRaw(const QByteArray &text)
{
    return enqueue({{text, Ordered}, QString()});
}

bool Outbox::enqueue(Entry entry)
{
    QMutexLocker lock(&m_mutex);
    if (m_closed)
        return false;
    if (entry.message.kind == Latest) {
        for (Entry &e : m_queue) {
            if (e.message.kind == Latest && e.topic == entry.topic) {
                m_bytes += entry.message.text.size() - e.message.text.size();
                e.message.text = std::move(entry.message.text);
                return true;
            }
        }
    }
    makeRoom(entry.message.text.size());
    m_bytes += entry.message.text.size();
    m_queue.push_back(std::move(entry));
    m_ready.wakeOne();
    return true;
}

// Called with m_mutex held.
void Outbox::makeRoom(qint64 incoming)
{
    while (!m_queue.empty() &&
           (static_cast<int>(m_queue.size()) >= kMaxMessages || m_bytes + incoming > kMaxBytes)) {
        if (!dropOldest(Latest) && !dropOldest(Stored))
            dropOldest(Ordered);
        // One line per burst: an agent that is away for an hour must not fill the log.
        if (++m_dropped == 1 || m_dropped % 1000 == 0)
            zlog_info(g_zlog, "outbox full: %d messages dropped, oldest first", m_dropped);
    }
}

bool Outbox::dropOldest(Kind kind)
{
    auto it = std::find_if(m_queue.begin(), m_queue.end(), [kind](const Entry &e) { return e.message.kind == kind; });
    if (it == m_queue.end())
        return false;
    m_bytes -= it->message.text.size();
    m_queue.erase(it);
    return true;
}

bool Outbox::take(Message *out, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    QMutexLocker lock(&m_mutex);
    while (m_queue.empty() && !m_closed) {
        const qint64 left = timeoutMs - clock.elapsed();
        if (left <= 0)
            return false;
        m_ready.wait(&m_mutex, static_cast<unsigned long>(left));
    }
    if (m_queue.empty())
        return false;
    *out = std::move(m_queue.front().message);
    m_bytes -= out->text.size();
    m_queue.pop_front();
    if (m_queue.empty())
        m_dropped = 0;
    return true;
}

void Outbox::putBack(const Message &m)
{
    if (m.kind != Ordered)
        return;
    QMutexLocker lock(&m_mutex);
    if (m_closed)
        return;
    m_bytes += m.text.size();
    m_queue.push_front({m, QString()});
    m_ready.wakeOne();
}

int Outbox::waiting() const
{
    QMutexLocker lock(&m_mutex);
    return static_cast<int>(m_queue.size());
}

void Outbox::setCloudState(bool up)
{
    publishState(up);
}

void Outbox::agentLost()
{
    publishState(false);
}

void Outbox::publishState(bool up)
{
    const bool was = m_cloudUp.exchange(up);
    if (up && !was)
        ++m_upCount;
    const int32_t word = up ? 1 : 0;
    communication::getInstance()->setLocalValue(LocalRegisters::LW, kCloudStateWord, 2,
                                                reinterpret_cast<const uchar *>(&word));
}

void Outbox::close()
{
    QMutexLocker lock(&m_mutex);
    m_closed = true;
    m_ready.wakeAll();
}

void Outbox::open()
{
    QMutexLocker lock(&m_mutex);
    m_closed = false;
}

void Outbox::clear()
{
    QMutexLocker lock(&m_mutex);
    m_queue.clear();
    m_bytes = 0;
    m_dropped = 0;
}
