// Stores a batch of gateway messages in one transaction and says what to
// answer once it is committed: an acknowledgement for every history batch
// and alarm event, duplicates included, and the changes to push to the
// console.
//
// Exactly once. The gateway sends a history batch and an alarm event again
// until it is acknowledged, so the same content arrives more than once:
// - a history row is stored once per (gateway, group, data_time, data_text,
//   row_id, occurrence). A gateway that names its rows ("row_id") tells equal
//   samples apart itself. For one that does not, occurrence numbers equal
//   rows within a batch: a resent batch, or one cut differently after the
//   gateway restarted, adds nothing, and two real samples with the same
//   second and values in one batch stay two. Only equal samples that a batch
//   boundary splits cannot be told from a resend; they are stored once.
// - an alarm event is a duplicate when this gateway already has one with the
//   same reqId and content (a resend, in whatever order copies arrive), or
//   when its content equals the gateway's last stored event (the resend of a
//   gateway restarted before it saw the acknowledgement: a new process picks
//   a new reqId). An alarm's events alternate between alarm and recovery, so
//   two real consecutive events never have equal content.
//
// Two instances on one PostgreSQL database take their locks in one order
// (points by gateway and code, history rows by key, alarms under a per-gateway
// advisory lock, then the rest by gateway), so they cannot deadlock each other.
#pragma once

#include "dbconn.h"
#include "inbound.h"

#include <QHash>

#include <functional>
#include <vector>

namespace platform {

struct Outgoing {
    QByteArray topic;
    QByteArray payload;
};

// What the console is told: "points", "alarm" or "gateway", as JSON.
struct Change {
    QByteArray event;
    QString serial;
    QByteArray json;
};

struct BatchOutcome {
    std::vector<Outgoing> acks;
    std::vector<qint64> alarmIds;  // stored or matched events whose acknowledgement goes out
    std::vector<Change> changes;
    int historyStored = 0;
    int historyDuplicates = 0;
    int alarmsStored = 0;
    int alarmDuplicates = 0;
};

// Writes the API sent and not yet reported back: (serial, code) to the edit
// id and value. The store confirms one when the gateway reports the code.
using WriteMatcher = std::function<qint64(const QString &serial, int code, const QString &value)>;

class StoreWriter {
public:
    explicit StoreWriter(DbConn &db, WriteMatcher writes = nullptr);

    // False leaves the database as it was (the reason in db.fault()/error()).
    bool store(const std::vector<Inbound> &batch, BatchOutcome *out);
    // Records that these events' acknowledgements were handed to the broker.
    bool markAcked(const std::vector<qint64> &alarmIds);
    // Deletes history rows and alarm events older than the given gateway
    // times; returns how many went, -1 on failure.
    qint64 prune(qint64 before);
    // Forgets cached gateway ids, after a reconnect to another server.
    void forgetGateways() { m_ids.clear(); }

private:
    bool gatewayIds(const std::vector<Inbound> &batch, QHash<QString, int> *ids, BatchOutcome *out);
    bool storePoints(const std::vector<const Inbound *> &msgs, const QHash<QString, int> &ids, BatchOutcome *out);
    bool storeHistory(const std::vector<const Inbound *> &msgs, const QHash<QString, int> &ids, BatchOutcome *out);
    bool storeAlarms(const std::vector<const Inbound *> &msgs, const QHash<QString, int> &ids, BatchOutcome *out);
    bool storeAlarm(int gw, const Inbound &m, BatchOutcome *out);
    bool storeRest(const std::vector<const Inbound *> &msgs, const QHash<QString, int> &ids);
    bool confirmWrites(const Inbound &m);

    DbConn &m_db;
    WriteMatcher m_writes;
    QHash<QString, int> m_ids;  // serial to gateway id, as the database assigned them
};

}  // namespace platform
