#include "storereader.h"

#include "jsonout.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace platform {

StoreReader::StoreReader(std::unique_ptr<DbConn> db, int offlineAfterS)
    : m_db(std::move(db)), m_offlineAfterMs(qint64(offlineAfterS) * 1000)
{
}

bool StoreReader::online(qint64 lastSeenMs) const
{
    return QDateTime::currentMSecsSinceEpoch() - lastSeenMs <= m_offlineAfterMs;
}

// One retry after a reconnect: a PostgreSQL server that restarted since the
// last request must not cost the user an error page.
bool StoreReader::query(const QByteArray &sql, const SqlParams &params, SqlRows *rows)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_db->exec(sql, params, rows))
        return true;
    if (m_db->fault() != DbFault::Connection || !m_db->reconnect())
        return false;
    if (rows)
        rows->clear();
    return m_db->exec(sql, params, rows);
}

bool StoreReader::healthy()
{
    return query("SELECT 1", {}, nullptr);
}

QByteArray StoreReader::gateways()
{
    SqlRows rows;
    query("SELECT sn, version, info, last_seen FROM gateways ORDER BY sn", {}, &rows);
    QByteArray out = "[";
    for (const SqlRow &r : rows) {
        jsonOpenItem(out);
        jsonField(out, "sn", QString::fromUtf8(r[0]));
        jsonBool(out, "online", online(r[3].toLongLong()));
        jsonField(out, "last_seen", r[3].toLongLong() / 1000);
        jsonField(out, "version", QString::fromUtf8(r[1]));
        jsonField(out, "model", QJsonDocument::fromJson(r[2]).object().value("model").toString());
        out += '}';
    }
    return out + "]";
}

bool StoreReader::gateway(const QString &serial, GatewayRef *out)
{
    SqlRows rows;
    if (!query("SELECT id, version, last_seen FROM gateways WHERE sn = $1", {serial}, &rows) || rows.empty())
        return false;
    out->id = rows[0][0].toInt();
    out->prefix = "/" + serial.toUtf8() + "_" + rows[0][1];
    out->online = online(rows[0][2].toLongLong());
    return true;
}

QByteArray StoreReader::gatewayDetail(const QString &serial, const GatewayRef &ref)
{
    SqlRows g, fwd;
    query("SELECT version, info, first_seen, last_seen FROM gateways WHERE id = $1", {ref.id}, &g);
    query("SELECT config_id, status, time FROM forwarding WHERE gw = $1 ORDER BY config_id", {ref.id}, &fwd);
    QByteArray out = "{";
    jsonField(out, "sn", serial);
    jsonBool(out, "online", ref.online);
    if (!g.empty()) {
        jsonField(out, "version", QString::fromUtf8(g[0][0]));
        jsonField(out, "first_seen", g[0][2].toLongLong() / 1000);
        jsonField(out, "last_seen", g[0][3].toLongLong() / 1000);
        const QJsonDocument info = QJsonDocument::fromJson(g[0][1]);
        jsonKey(out, "info");
        out += info.isObject() ? info.toJson(QJsonDocument::Compact) : QByteArray("null");
    }
    jsonKey(out, "forwarding");
    out += '[';
    for (const SqlRow &r : fwd) {
        jsonOpenItem(out);
        jsonField(out, "config_id", r[0].toInt());
        jsonBool(out, "connected", r[1].toInt() == 1);
        jsonField(out, "time", r[2].toLongLong() / 1000);
        out += '}';
    }
    return out + "]}";
}

QByteArray StoreReader::points(const GatewayRef &ref, const QHash<int, QString> &names)
{
    SqlRows rows;
    query("SELECT code, value, time FROM points WHERE gw = $1 ORDER BY code", {ref.id}, &rows);
    QByteArray out = "[";
    for (const SqlRow &r : rows) {
        const int code = r[0].toInt();
        jsonOpenItem(out);
        jsonField(out, "code", code);
        jsonField(out, "value", QString::fromUtf8(r[1]));
        // The gateway leaves out points it could not read; while it is
        // silent nothing tells whether a value still holds.
        jsonField(out, "quality", ref.online ? "good" : "stale");
        jsonField(out, "time", r[2].toLongLong() / 1000);
        if (names.contains(code))
            jsonField(out, "name", names.value(code));
        out += '}';
    }
    return out + "]";
}

QByteArray StoreReader::alarms(const GatewayRef &ref, int limit)
{
    SqlRows rows;
    query("SELECT id, alarm_index, level, type, note, time, acked, recovered_time FROM alarms WHERE gw = $1"
          " ORDER BY id DESC LIMIT $2",
          {ref.id, limit}, &rows);
    QByteArray out = "[";
    for (const SqlRow &r : rows) {
        const bool alarm = r[3].toInt() == 1;
        const qint64 recovered = r[7].toLongLong();
        jsonOpenItem(out);
        jsonField(out, "id", r[0].toLongLong());
        jsonField(out, "index", r[1].toInt());
        jsonField(out, "level", r[2].toInt());
        jsonField(out, "type", alarm ? "alarm" : "recovery");
        jsonField(out, "note", QString::fromUtf8(r[4]));
        jsonField(out, "time", r[5].toLongLong());
        jsonBool(out, "acked", r[6].toInt() != 0);
        if (alarm) {
            jsonBool(out, "recovered", recovered >= 0);
            jsonKey(out, "recovered_time");
            out += recovered >= 0 ? QByteArray::number(recovered) : QByteArray("null");
        }
        out += '}';
    }
    return out + "]";
}

QByteArray StoreReader::history(const GatewayRef &ref, const std::vector<HistoryQuery> &queries)
{
    std::vector<std::pair<qint64, QByteArray>> values;
    for (const HistoryQuery &q : queries) {
        SqlRows rows;
        query("SELECT data_time, data_text FROM history WHERE gw = $1 AND group_id = $2 AND data_time >= $3"
              " AND data_time <= $4 ORDER BY data_time, occurrence LIMIT $5",
              {ref.id, q.group, q.from, q.to, q.limit}, &rows);
        for (const SqlRow &r : rows) {
            const QList<QByteArray> fields = r[1].split('\n');
            // An empty field is a sample the gateway could not read: no value.
            if (q.position < fields.size() && !fields[q.position].isEmpty())
                values.emplace_back(r[0].toLongLong(), fields[q.position]);
        }
    }
    std::stable_sort(values.begin(), values.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    QByteArray out = "[";
    out.reserve(static_cast<int>(values.size()) * 32);
    for (const auto &[time, value] : values) {
        jsonOpenItem(out);
        jsonField(out, "time", time);
        jsonField(out, "value", QString::fromUtf8(value));
        out += '}';
    }
    return out + "]";
}

QByteArray StoreReader::edits(const GatewayRef &ref, int limit)
{
    SqlRows rows;
    query("SELECT id, kind, operation, body, sent, acked, ack_ids, ack_result FROM edits WHERE gw = $1"
          " ORDER BY id DESC LIMIT $2",
          {ref.id, limit}, &rows);
    QByteArray out = "[";
    for (const SqlRow &r : rows) {
        const qint64 acked = r[5].toLongLong();
        jsonOpenItem(out);
        jsonField(out, "id", r[0].toLongLong());
        jsonField(out, "kind", QString::fromUtf8(r[1]));
        jsonField(out, "operation", QString::fromUtf8(r[2]));
        jsonField(out, "body", QString::fromUtf8(r[3]));
        jsonField(out, "sent", r[4].toLongLong() / 1000);
        jsonBool(out, "acked", acked > 0);
        if (acked > 0) {
            jsonField(out, "ack_time", acked / 1000);
            jsonField(out, "ack_ids", QString::fromUtf8(r[6]));
            jsonField(out, "ack_result", r[7].toInt());
        }
        out += '}';
    }
    return out + "]";
}

qint64 StoreReader::recordEdit(int gw, const QString &kind, const QString &operation, const QByteArray &body)
{
    SqlRows rows;
    if (!query("INSERT INTO edits (gw, kind, operation, body, sent) VALUES ($1, $2, $3, $4, $5) RETURNING id",
               {gw, kind, operation, body, QDateTime::currentMSecsSinceEpoch()}, &rows) ||
        rows.empty())
        return -1;
    return rows[0][0].toLongLong();
}

}  // namespace platform
