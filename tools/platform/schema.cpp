#include "schema.h"

namespace platform {
namespace {

// Written for both databases; the few words that differ are filled in.
const char *const kTables[] = {
    "CREATE TABLE IF NOT EXISTS gateways ("
    " id %SERIAL%,"
    " sn TEXT NOT NULL UNIQUE,"
    " version TEXT NOT NULL DEFAULT '',"
    " info TEXT NOT NULL DEFAULT '',"
    " first_seen BIGINT NOT NULL,"
    " last_seen BIGINT NOT NULL)",

    // Latest value of every real-time point; times in ms of the platform's clock.
    "CREATE TABLE IF NOT EXISTS points ("
    " gw INTEGER NOT NULL,"
    " code INTEGER NOT NULL,"
    " value TEXT NOT NULL,"
    " time BIGINT NOT NULL,"
    " PRIMARY KEY (gw, code))",

    // One row per sample as the gateway sent it, told apart from an equal
    // row (same group, second and values) by the gateway's row_id when it
    // names its rows, else by its place among the equal rows of its batch.
    "CREATE TABLE IF NOT EXISTS history ("
    " gw INTEGER NOT NULL,"
    " group_id BIGINT NOT NULL,"
    " data_time BIGINT NOT NULL,"
    " data_text TEXT NOT NULL,"
    " occurrence INTEGER NOT NULL,"
    " row_id BIGINT NOT NULL,"
    " received BIGINT NOT NULL)",
    "CREATE UNIQUE INDEX IF NOT EXISTS history_key"
    " ON history (gw, group_id, data_time, %TEXTKEY%, row_id, occurrence)",
    "CREATE INDEX IF NOT EXISTS history_time ON history (data_time)",

    // Alarm events and recoveries in the order they were stored.
    "CREATE TABLE IF NOT EXISTS alarms ("
    " id %BIGSERIAL%,"
    " gw INTEGER NOT NULL,"
    " alarm_index INTEGER NOT NULL,"
    " level INTEGER NOT NULL,"
    " type INTEGER NOT NULL,"
    " note TEXT NOT NULL,"
    " time BIGINT NOT NULL,"
    " req_id BIGINT NOT NULL,"
    " received BIGINT NOT NULL,"
    " acked INTEGER NOT NULL DEFAULT 0,"
    " recovered_time BIGINT NOT NULL DEFAULT -1)",
    "CREATE INDEX IF NOT EXISTS alarms_gw ON alarms (gw, id)",
    "CREATE INDEX IF NOT EXISTS alarms_index ON alarms (gw, alarm_index, id)",
    "CREATE INDEX IF NOT EXISTS alarms_req ON alarms (gw, req_id)",
    "CREATE INDEX IF NOT EXISTS alarms_time ON alarms (time)",

    // Online edits and writes sent from the API, and what came back.
    "CREATE TABLE IF NOT EXISTS edits ("
    " id %BIGSERIAL%,"
    " gw INTEGER NOT NULL,"
    " kind TEXT NOT NULL,"
    " operation TEXT NOT NULL,"
    " body TEXT NOT NULL,"
    " sent BIGINT NOT NULL,"
    " acked BIGINT NOT NULL DEFAULT 0,"
    " ack_ids TEXT NOT NULL DEFAULT '',"
    " ack_result INTEGER NOT NULL DEFAULT -1)",
    "CREATE INDEX IF NOT EXISTS edits_gw ON edits (gw, id)",

    "CREATE TABLE IF NOT EXISTS forwarding ("
    " gw INTEGER NOT NULL,"
    " config_id INTEGER NOT NULL,"
    " status INTEGER NOT NULL,"
    " time BIGINT NOT NULL,"
    " PRIMARY KEY (gw, config_id))",
};

QByteArray dialectSql(const char *text, Dialect d)
{
    QByteArray sql(text);
    const bool pg = d == Dialect::Postgres;
    sql.replace("%SERIAL%", pg ? "SERIAL PRIMARY KEY" : "INTEGER PRIMARY KEY");
    sql.replace("%BIGSERIAL%", pg ? "BIGSERIAL PRIMARY KEY" : "INTEGER PRIMARY KEY");
    // A PostgreSQL index entry is limited to a third of a page; a row of many
    // long texts would not fit.
    sql.replace("%TEXTKEY%", pg ? "md5(data_text)" : "data_text");
    return sql;
}

}  // namespace

bool createSchema(DbConn &db, QString *why)
{
    // Two instances starting on one database would otherwise race on CREATE.
    if (db.dialect() == Dialect::Postgres && !db.exec("SELECT pg_advisory_lock(7134001)")) {
        *why = db.error();
        return false;
    }
    bool ok = true;
    for (const char *t : kTables) {
        if (!db.exec(dialectSql(t, db.dialect()))) {
            *why = db.error();
            ok = false;
            break;
        }
    }
    if (db.dialect() == Dialect::Postgres)
        db.exec("SELECT pg_advisory_unlock(7134001)");
    return ok;
}

}  // namespace platform
