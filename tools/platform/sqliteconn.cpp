// SQLite: one file in WAL mode, so the API reads while the writer commits.
#include "dbconn.h"

#include <sqlite3.h>

#include <map>

namespace platform {

bool isPostgresUrl(const QString &target)
{
    return target.startsWith("postgresql://") || target.startsWith("postgres://");
}

std::unique_ptr<DbConn> openDb(const QString &target, QString *why)
{
    return isPostgresUrl(target) ? openPostgres(target, why) : openSqlite(target, why);
}

qint64 DbConn::scalar(const QByteArray &sql, const SqlParams &params, qint64 def)
{
    SqlRows rows;
    if (!exec(sql, params, &rows) || rows.empty() || rows.front().empty())
        return def;
    bool ok = false;
    const qint64 n = rows.front().front().toLongLong(&ok);
    return ok ? n : def;
}

namespace {

struct DbClose {
    void operator()(sqlite3 *db) const { sqlite3_close_v2(db); }
};
struct StmtFinalize {
    void operator()(sqlite3_stmt *s) const { sqlite3_finalize(s); }
};
using Stmt = std::unique_ptr<sqlite3_stmt, StmtFinalize>;

// "$3" becomes "?3": SQLite numbers its parameters that way.
QByteArray sqliteParams(const QByteArray &sql)
{
    QByteArray out = sql;
    for (int i = 0; i + 1 < out.size(); ++i)
        if (out[i] == '$' && out[i + 1] >= '0' && out[i + 1] <= '9')
            out[i] = '?';
    return out;
}

class SqliteConn : public DbConn {
public:
    explicit SqliteConn(const QString &path) : m_path(path) {}

    bool open(QString *why)
    {
        sqlite3 *db = nullptr;
        const int rc = sqlite3_open_v2(m_path.toUtf8().constData(), &db,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
        m_db.reset(db);
        if (rc != SQLITE_OK) {
            *why = QString("cannot open %1: %2").arg(m_path, db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
            return false;
        }
        // Another connection (the API's, or a writer in a moment) may hold the
        // lock; wait for it rather than fail.
        sqlite3_busy_timeout(db, 10000);
        for (const char *pragma : {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=NORMAL", "PRAGMA foreign_keys=OFF"}) {
            if (!exec(pragma, {}, nullptr)) {
                *why = QString("%1: %2 (is it a SQLite database?)").arg(m_path, error());
                return false;
            }
        }
        return true;
    }

    Dialect dialect() const override { return Dialect::Sqlite; }

    bool exec(const QByteArray &sql, const SqlParams &params, SqlRows *rows) override
    {
        sqlite3_stmt *s = prepare(sql);
        if (!s)
            return false;
        for (size_t i = 0; i < params.size(); ++i) {
            const SqlParam &p = params[i];
            const int at = static_cast<int>(i + 1);
            if (p.isInt)
                sqlite3_bind_int64(s, at, p.number);
            else
                sqlite3_bind_text(s, at, p.text.constData(), p.text.size(), SQLITE_TRANSIENT);
        }
        int rc;
        while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
            if (!rows)
                continue;
            SqlRow row;
            const int n = sqlite3_column_count(s);
            row.reserve(n);
            for (int c = 0; c < n; ++c)
                row.emplace_back(reinterpret_cast<const char *>(sqlite3_column_text(s, c)), sqlite3_column_bytes(s, c));
            rows->push_back(std::move(row));
        }
        sqlite3_reset(s);
        sqlite3_clear_bindings(s);
        if (rc != SQLITE_DONE)
            return failed(rc);
        clearFault();
        return true;
    }

    qint64 changes() const override { return sqlite3_changes(m_db.get()); }
    bool begin() override { return exec("BEGIN IMMEDIATE", {}, nullptr); }
    bool commit() override { return exec("COMMIT", {}, nullptr); }
    void rollback() override
    {
        if (!sqlite3_get_autocommit(m_db.get()))
            sqlite3_exec(m_db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
    bool reconnect() override { return true; }

private:
    sqlite3_stmt *prepare(const QByteArray &sql)
    {
        auto it = m_stmts.find(sql);
        if (it != m_stmts.end())
            return it->second.get();
        // Statements built for a varying number of rows come and go; keep the
        // cache bounded.
        if (m_stmts.size() > 200)
            m_stmts.clear();
        sqlite3_stmt *s = nullptr;
        const QByteArray text = sqliteParams(sql);
        const int rc = sqlite3_prepare_v2(m_db.get(), text.constData(), text.size() + 1, &s, nullptr);
        if (rc != SQLITE_OK) {
            failed(rc);
            return nullptr;
        }
        m_stmts[sql].reset(s);
        return s;
    }

    bool failed(int rc)
    {
        const bool busy = rc == SQLITE_BUSY || rc == SQLITE_LOCKED;
        fail(busy ? DbFault::Retry : DbFault::Data, QString::fromUtf8(sqlite3_errmsg(m_db.get())));
        return false;
    }

    QString m_path;
    std::unique_ptr<sqlite3, DbClose> m_db;
    std::map<QByteArray, Stmt> m_stmts;  // declared after m_db: finalized before it closes
};

}  // namespace

std::unique_ptr<DbConn> openSqlite(const QString &path, QString *why)
{
    auto conn = std::make_unique<SqliteConn>(path);
    if (!conn->open(why))
        return nullptr;
    return conn;
}

}  // namespace platform
