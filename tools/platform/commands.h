// Writes and online edits from the API to a gateway: each is recorded in
// the edits table, then published on the gateway's command topic. The
// gateway's acknowledgement (or, for a write, its report of the written
// value on /DevSend/RTD) is matched back by the store.
#pragma once

#include "storereader.h"
#include "storewriter.h"  // Outgoing

#include <functional>
#include <map>
#include <mutex>

namespace platform {

struct Reply {
    int status = 200;
    QByteArray json;
};

class Commands {
public:
    using Publish = std::function<void(const Outgoing &)>;
    Commands(StoreReader &store, Publish publish) : m_store(store), m_publish(std::move(publish)) {}

    // body {"code": N, "value": "text"} (a number for value will do).
    Reply write(const QString &serial, const QByteArray &body);
    // body: the online-set message as the gateway takes it.
    Reply edit(const QString &serial, const QString &kind, const QByteArray &body);
    // The edit id of a write of value to code on serial still waiting for its
    // report (forgotten once matched), or -1.
    qint64 matchWrite(const QString &serial, int code, const QString &value);

private:
    Reply send(const QString &serial, const QString &kind, const QString &operation, const QByteArray &topic,
               const QByteArray &message, GatewayRef *ref, qint64 *id);

    StoreReader &m_store;
    Publish m_publish;
    struct Pending {
        qint64 id;
        QString value;
        qint64 sentMs;
    };
    std::mutex m_mutex;
    std::map<std::pair<QString, int>, Pending> m_writes;
};

Reply errorReply(int status, const QString &message);

}  // namespace platform
