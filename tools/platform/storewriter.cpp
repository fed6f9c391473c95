#include "storewriter.h"

#include "jsonout.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace platform {
namespace {

const int kPointsPerStatement = 200;
const int kRowsPerStatement = 100;
const qint64 kEditAckWindowMs = 10 * 60 * 1000;  // an edit not answered by then is not waited for

// "($1,$2,$3),($4,$5,$6)" for rows × cols parameters.
QByteArray valuesClause(int rows, int cols)
{
    QByteArray out;
    int n = 1;
    for (int r = 0; r < rows; ++r) {
        out += r ? ",(" : "(";
        for (int c = 0; c < cols; ++c)
            out += (c ? ",$" : "$") + QByteArray::number(n++);
        out += ')';
    }
    return out;
}

// The messages of one kind, in the batch's order (by gateway, each
// gateway's in arrival order).
std::vector<const Inbound *> ofKind(const std::vector<const Inbound *> &sorted, TopicKind kind)
{
    std::vector<const Inbound *> out;
    for (const Inbound *m : sorted)
        if (m->kind == kind)
            out.push_back(m);
    return out;
}

QByteArray alarmChange(qint64 id, const Inbound &m)
{
    const AlarmEvent &a = m.alarm;
    QByteArray j = "{";
    jsonField(j, "sn", m.serial);
    jsonField(j, "id", id);
    jsonField(j, "index", a.index);
    jsonField(j, "level", a.level);
    jsonField(j, "type", a.type == 1 ? "alarm" : "recovery");
    jsonField(j, "note", a.note);
    jsonField(j, "time", a.time);
    return j + "}";
}

}  // namespace

StoreWriter::StoreWriter(DbConn &db, WriteMatcher writes) : m_db(db), m_writes(std::move(writes)) {}

bool StoreWriter::gatewayIds(const std::vector<Inbound> &batch, QHash<QString, int> *ids, BatchOutcome *out)
{
    std::map<QString, const Inbound *> serials;
    for (const Inbound &m : batch)
        serials.emplace(m.serial, &m);
    for (const auto &[serial, m] : serials) {
        if (!m_ids.contains(serial)) {
            // Outside the batch's transaction: the row is needed either way, and
            // another instance may be creating it at the same moment.
            if (!m_db.exec("INSERT INTO gateways (sn, version, first_seen, last_seen) VALUES ($1, $2, $3, $3) "
                           "ON CONFLICT (sn) DO NOTHING",
                           {serial, m->version, m->receivedMs}))
                return false;
            const bool created = m_db.changes() > 0;
            const qint64 id = m_db.scalar("SELECT id FROM gateways WHERE sn = $1", {serial});
            if (id < 0)
                return false;
            if (created) {
                QByteArray j = "{";
                jsonField(j, "sn", serial);
                jsonBool(j, "online", true);
                out->changes.push_back({"gateway", serial, j + "}"});
            }
            m_ids.insert(serial, static_cast<int>(id));
        }
        ids->insert(serial, m_ids.value(serial));
    }
    return true;
}

bool StoreWriter::store(const std::vector<Inbound> &batch, BatchOutcome *out)
{
    QHash<QString, int> ids;
    if (!gatewayIds(batch, &ids, out) || !m_db.begin())
        return false;
    std::vector<const Inbound *> all;
    for (const Inbound &m : batch)
        all.push_back(&m);
    std::stable_sort(all.begin(), all.end(),
                     [&](const Inbound *a, const Inbound *b) { return ids.value(a->serial) < ids.value(b->serial); });
    const bool ok = storePoints(ofKind(all, TopicKind::RealTime), ids, out) &&
                    storeHistory(ofKind(all, TopicKind::History), ids, out) &&
                    storeAlarms(ofKind(all, TopicKind::Alarm), ids, out) && storeRest(all, ids);
    if (!ok || !m_db.commit()) {
        m_db.rollback();
        *out = BatchOutcome();
        return false;
    }
    return true;
}

bool StoreWriter::storePoints(const std::vector<const Inbound *> &msgs, const QHash<QString, int> &ids,
                              BatchOutcome *out)
{
    // The latest value of each point in this batch, by gateway and code: one
    // row each, in one order for every instance.
    std::map<std::pair<int, int>, std::pair<const QString *, qint64>> latest;
    std::map<int, const QString *> serialOf;
    for (const Inbound *m : msgs) {
        const int gw = ids.value(m->serial);
        serialOf[gw] = &m->serial;
        for (const PointValue &p : m->points)
            latest[{gw, p.code}] = {&p.value, m->receivedMs};
    }
    std::map<int, QByteArray> changes;
    SqlParams params;
    int rows = 0;
    auto flush = [&] {
        if (!rows)
            return true;
        const QByteArray sql = "INSERT INTO points (gw, code, value, time) VALUES " + valuesClause(rows, 4) +
                               " ON CONFLICT (gw, code) DO UPDATE SET value = excluded.value, time = excluded.time"
                               " WHERE points.time <= excluded.time";
        rows = 0;
        const bool ok = m_db.exec(sql, params);
        params.clear();
        return ok;
    };
    for (const auto &[key, value] : latest) {
        params.insert(params.end(), {key.first, key.second, *value.first, value.second});
        QByteArray &j = changes[key.first];
        if (j.isEmpty())
            j = "[";
        jsonOpenItem(j);
        jsonField(j, "code", key.second);
        jsonField(j, "value", *value.first);
        jsonField(j, "time", value.second / 1000);
        j += '}';
        if (++rows == kPointsPerStatement && !flush())
            return false;
    }
    if (!flush())
        return false;
    for (const auto &[gw, list] : changes) {
        QByteArray j = "{";
        jsonField(j, "sn", *serialOf[gw]);
        jsonKey(j, "points");
        out->changes.push_back({"points", *serialOf[gw], j + list + "]}"});
    }
    return true;
}

bool StoreWriter::storeHistory(const std::vector<const Inbound *> &msgs, const QHash<QString, int> &ids,
                               BatchOutcome *out)
{
    struct Row {
        int gw;
        quint32 group;
        qint64 time;
        const QString *text;
        qint64 rowId;
        int occurrence;
        qint64 received;
    };
    std::vector<Row> rows;
    for (const Inbound *m : msgs) {
        QHash<QPair<qint64, QString>, int> seen;
        for (const HistoryRow &r : m->rows) {
            const int occurrence = r.rowId >= 0 ? 0 : seen[{r.time, r.text}]++;
            rows.push_back({ids.value(m->serial), m->groupId, r.time, &r.text, r.rowId, occurrence, m->receivedMs});
        }
        const QByteArray ack = "{\"status\":\"yes\",\"group_id\":" + QByteArray::number(m->groupId) + "}";
        out->acks.push_back({m->prefix + "/DevRecv/HisData", ack});
    }
    std::sort(rows.begin(), rows.end(), [](const Row &a, const Row &b) {
        return std::tie(a.gw, a.group, a.time, *a.text, a.rowId, a.occurrence) <
               std::tie(b.gw, b.group, b.time, *b.text, b.rowId, b.occurrence);
    });
    for (size_t at = 0; at < rows.size(); at += kRowsPerStatement) {
        const size_t n = std::min(rows.size() - at, size_t(kRowsPerStatement));
        SqlParams params;
        params.reserve(n * 7);
        for (size_t i = at; i < at + n; ++i) {
            const Row &r = rows[i];
            params.insert(params.end(), {r.gw, r.group, r.time, *r.text, r.rowId, r.occurrence, r.received});
        }
        const QByteArray sql =
            "INSERT INTO history (gw, group_id, data_time, data_text, row_id, occurrence, received) VALUES " +
            valuesClause(static_cast<int>(n), 7) + " ON CONFLICT DO NOTHING";
        if (!m_db.exec(sql, params))
            return false;
        out->historyStored += static_cast<int>(m_db.changes());
    }
    out->historyDuplicates += static_cast<int>(rows.size()) - out->historyStored;
    return true;
}

bool StoreWriter::storeAlarms(const std::vector<const Inbound *> &msgs, const QHash<QString, int> &ids,
                              BatchOutcome *out)
{
    int locked = -1;
    for (const Inbound *m : msgs) {
        const int gw = ids.value(m->serial);
        // Serialises one gateway's events across instances; released at commit.
        if (gw != locked && m_db.dialect() == Dialect::Postgres &&
            !m_db.exec("SELECT pg_advisory_xact_lock(7134002, $1)", {gw}))
            return false;
        locked = gw;
        if (!storeAlarm(gw, *m, out))
            return false;
        const QByteArray ack = "{\"reqTopic\":\"" + m->alarm.reqTopic + "\",\"reqId\":\"" +
                               QByteArray::number(m->alarm.reqId) + "\"}";
        out->acks.push_back({m->prefix + "/DevRecv/MsgAck", ack});
    }
    return true;
}

bool StoreWriter::storeAlarm(int gw, const Inbound &m, BatchOutcome *out)
{
    const AlarmEvent &a = m.alarm;
    qint64 id = m_db.scalar("SELECT id FROM alarms WHERE gw = $1 AND req_id = $2 AND alarm_index = $3 AND type = $4"
                            " AND time = $5 AND note = $6 LIMIT 1",
                            {gw, a.reqId, a.index, a.type, a.time, a.note});
    if (id < 0 && m_db.fault() == DbFault::None) {
        SqlRows last;
        if (!m_db.exec("SELECT id, alarm_index, type, time, note FROM alarms WHERE gw = $1 ORDER BY id DESC LIMIT 1",
                       {gw}, &last))
            return false;
        if (!last.empty()) {
            const SqlRow &r = last.front();
            if (r[1].toInt() == a.index && r[2].toInt() == a.type && r[3].toLongLong() == a.time &&
                QString::fromUtf8(r[4]) == a.note)
                id = r[0].toLongLong();
        }
    }
    if (m_db.fault() != DbFault::None)
        return false;
    if (id >= 0) {
        ++out->alarmDuplicates;
        out->alarmIds.push_back(id);
        return true;
    }
    id = m_db.scalar("INSERT INTO alarms (gw, alarm_index, level, type, note, time, req_id, received)"
                     " VALUES ($1, $2, $3, $4, $5, $6, $7, $8) RETURNING id",
                     {gw, a.index, a.level, a.type, a.note, a.time, a.reqId, m.receivedMs});
    if (id < 0)
        return false;
    if (a.type == 2 &&
        !m_db.exec("UPDATE alarms SET recovered_time = $1 WHERE id = (SELECT max(id) FROM alarms"
                   " WHERE gw = $2 AND alarm_index = $3 AND type = 1 AND recovered_time < 0)",
                   {a.time, gw, a.index}))
        return false;
    ++out->alarmsStored;
    out->alarmIds.push_back(id);
    out->changes.push_back({"alarm", m.serial, alarmChange(id, m)});
    return true;
}

// Identity, acknowledgements of edits and writes, forwarding states, and the
// time each gateway was last heard of; by gateway, after everything else.
bool StoreWriter::storeRest(const std::vector<const Inbound *> &msgs, const QHash<QString, int> &ids)
{
    std::map<int, std::pair<qint64, const QString *>> lastSeen;
    for (const Inbound *m : msgs) {
        const int gw = ids.value(m->serial);
        lastSeen[gw] = {m->receivedMs, &m->version};
        bool ok = true;
        switch (m->kind) {
        case TopicKind::DeviceInfo:
            ok = m_db.exec("UPDATE gateways SET info = $1 WHERE id = $2", {m->text, gw});
            break;
        case TopicKind::EditAck:
            ok = m_db.exec("UPDATE edits SET acked = $1, ack_ids = $2, ack_result = $3 WHERE id = (SELECT min(id)"
                           " FROM edits WHERE gw = $4 AND kind = $5 AND operation = $6 AND acked = 0 AND sent >= $7)",
                           {m->receivedMs, m->edit.ids, m->edit.result, gw, m->edit.kind, m->edit.operation,
                            m->receivedMs - kEditAckWindowMs});
            break;
        case TopicKind::ForwardState:
            ok = m_db.exec("INSERT INTO forwarding (gw, config_id, status, time) VALUES ($1, $2, $3, $4)"
                           " ON CONFLICT (gw, config_id) DO UPDATE SET status = excluded.status, time = excluded.time",
                           {gw, m->forwardId, m->forwardStatus, m->receivedMs});
            break;
        case TopicKind::RealTime:
            ok = confirmWrites(*m);
            break;
        default:
            break;
        }
        if (!ok)
            return false;
    }
    for (const auto &[gw, seen] : lastSeen) {
        // At most once a second, so that instances sharing the load seldom
        // wait for each other on the gateway's row.
        if (!m_db.exec("UPDATE gateways SET last_seen = $1, version = $2 WHERE id = $3"
                       " AND (last_seen < $4 OR version <> $2)",
                       {seen.first, *seen.second, gw, seen.first - 1000}))
            return false;
    }
    return true;
}

bool StoreWriter::confirmWrites(const Inbound &m)
{
    if (!m_writes)
        return true;
    for (const PointValue &p : m.points) {
        const qint64 edit = m_writes(m.serial, p.code, p.value);
        if (edit >= 0 && !m_db.exec("UPDATE edits SET acked = $1, ack_ids = $2, ack_result = 1 WHERE id = $3",
                                    {m.receivedMs, QString::number(p.code), edit}))
            return false;
    }
    return true;
}

bool StoreWriter::markAcked(const std::vector<qint64> &alarmIds)
{
    if (alarmIds.empty())
        return true;
    QByteArray list;
    for (qint64 id : alarmIds)
        list += (list.isEmpty() ? "" : ",") + QByteArray::number(id);
    return m_db.exec("UPDATE alarms SET acked = 1 WHERE acked = 0 AND id IN (" + list + ")");
}

qint64 StoreWriter::prune(qint64 before)
{
    if (!m_db.exec("DELETE FROM history WHERE data_time < $1", {before}))
        return -1;
    qint64 n = m_db.changes();
    if (!m_db.exec("DELETE FROM alarms WHERE time < $1", {before}))
        return -1;
    return n + m_db.changes();
}

}  // namespace platform
