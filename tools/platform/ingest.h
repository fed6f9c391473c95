// The MQTT side: every message under "/+/DevSend/#" comes here on the MQTT
// client's thread. It is checked (size, topic, serial number, compression,
// JSON), configuration requests are answered at once from the folder, and
// the rest is queued for the store. Nothing here waits on the database.
// What does not fit is logged (at most one line per fault every 10 s, with
// a count) and dropped.
#pragma once

#include "configservice.h"
#include "ingestqueue.h"

#include "generalFunc/logthrottle.h"

#include <functional>
#include <mutex>

namespace platform {

class Ingest {
public:
    using Publish = std::function<void(const Outgoing &)>;

    Ingest(IngestQueue &queue, ConfigService &config, Publish publish, int maxPayload);
    void onMessage(const QByteArray &topic, const QByteArray &payload);

    enum Fault { Oversized, BadTopic, UnknownTopic, BadCompression, Malformed, Faults };
    quint64 faults(Fault f) const;

private:
    void refuse(Fault f, const QByteArray &topic, const QByteArray &why);

    IngestQueue &m_queue;
    ConfigService &m_config;
    Publish m_publish;
    const int m_maxPayload;
    mutable std::mutex m_mutex;
    lumbra::LogThrottle m_throttle[Faults];
    quint64 m_count[Faults] = {};
};

}  // namespace platform
