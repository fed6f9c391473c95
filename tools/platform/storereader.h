// What the HTTP API asks of the database, on a connection of its own (the
// writer's stays with the writer), one request at a time. Answers are JSON
// texts; times are Unix seconds for what the platform saw (last_seen, a
// point's time) and the gateway's own seconds for what it stamped (history,
// alarms).
#pragma once

#include "dbconn.h"

#include <QHash>

#include <memory>
#include <mutex>
#include <vector>

namespace platform {

struct GatewayRef {
    int id = -1;
    QByteArray prefix;  // "/<serial>_<version>", where its commands go
    bool online = false;
};

struct HistoryQuery {
    quint32 group = 0;
    int position = 0;  // the point's place in the group's rows
    qint64 from = 0;
    qint64 to = 0;
    int limit = 100000;
};

class StoreReader {
public:
    StoreReader(std::unique_ptr<DbConn> db, int offlineAfterS);

    QByteArray gateways();
    // False when the gateway was never heard of (or the database is away).
    bool gateway(const QString &serial, GatewayRef *out);
    QByteArray gatewayDetail(const QString &serial, const GatewayRef &ref);
    // names: code to display name, from the configuration folder.
    QByteArray points(const GatewayRef &ref, const QHash<int, QString> &names);
    QByteArray alarms(const GatewayRef &ref, int limit);
    // {time, value} of one point out of several groups, by time.
    QByteArray history(const GatewayRef &ref, const std::vector<HistoryQuery> &queries);
    QByteArray edits(const GatewayRef &ref, int limit);
    // The id of the new row, -1 on failure.
    qint64 recordEdit(int gw, const QString &kind, const QString &operation, const QByteArray &body);
    bool healthy();

private:
    bool query(const QByteArray &sql, const SqlParams &params, SqlRows *rows);
    bool online(qint64 lastSeenMs) const;

    std::mutex m_mutex;
    std::unique_ptr<DbConn> m_db;
    const qint64 m_offlineAfterMs;
};

}  // namespace platform
