#include "ingest.h"

#include "platformlog.h"

#include <QDateTime>

namespace platform {
namespace {

const char *const kFaultText[] = {"oversized payload", "bad topic", "unknown topic", "payload does not inflate",
                                  "malformed payload"};

}  // namespace

Ingest::Ingest(IngestQueue &queue, ConfigService &config, Publish publish, int maxPayload)
    : m_queue(queue), m_config(config), m_publish(std::move(publish)), m_maxPayload(maxPayload)
{
}

quint64 Ingest::faults(Fault f) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_count[f];
}

void Ingest::refuse(Fault f, const QByteArray &topic, const QByteArray &why)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_count[f];
    int held = 0;
    if (m_throttle[f].allow(&held))
        PLOG_WARN("dropped: %s (%s) on %s; %d more since the last such line", kFaultText[f], why.constData(),
                  agent::preview(topic, 120).constData(), held);
}

void Ingest::onMessage(const QByteArray &topic, const QByteArray &raw)
{
    PLOG_DEBUG("%s %s", topic.constData(), agent::preview(raw).constData());
    if (raw.size() > m_maxPayload)
        return refuse(Oversized, topic, QByteArray::number(raw.size()) + " bytes");
    DeviceTopic dev;
    const char *why = "";
    if (!parseDeviceTopic(topic, &dev, &why))
        return refuse(BadTopic, topic, why);
    const TopicInfo info = classify(dev.shortTopic);
    if (info.kind == TopicKind::Unknown)
        return refuse(UnknownTopic, topic, "no such upload");
    if (info.kind == TopicKind::Ignored)
        return;
    QByteArray payload = raw;
    if (info.compressed && !inflateZlib(raw, m_maxPayload, &payload, &why))
        return refuse(BadCompression, topic, why);

    Inbound m;
    m.kind = info.kind;
    m.serial = dev.serial;
    m.version = dev.version;
    m.prefix = dev.prefix;
    m.receivedMs = QDateTime::currentMSecsSinceEpoch();
    m.bytes = payload.size() + 256;
    if (info.kind == TopicKind::ConfigRequest) {
        Outgoing reply;
        if (!m_config.answer(dev.serial, dev.prefix, info.configKind, payload, &reply))
            return refuse(Malformed, topic, "configuration request");
        m_publish(reply);
    } else {
        QString reason;
        if (!parsePayload(info, payload, &m, &reason))
            return refuse(Malformed, topic, reason.toUtf8());
        m.alarm.reqTopic = dev.shortTopic;
    }
    // Configuration requests too: they tell that the gateway is there.
    m_queue.push(std::move(m));
}

}  // namespace platform
