// PostgreSQL through libpqxx. libpqxx reports failures by throwing; every
// call is caught here and turned into a fault the store can act on.
#include "dbconn.h"

#include <pqxx/pqxx>

#include <map>
#include <string>

namespace platform {
namespace {

std::vector<std::string> textParams(const SqlParams &params)
{
    std::vector<std::string> out;
    out.reserve(params.size());
    for (const SqlParam &p : params)
        out.push_back(p.isInt ? std::to_string(p.number) : std::string(p.text.constData(), p.text.size()));
    return out;
}

// Deadlocks and serialisation failures: the same work may go through next time.
bool retryable(const std::string &state)
{
    return state == "40P01" || state == "40001";
}

class PgConn : public DbConn {
public:
    explicit PgConn(const QString &url) : m_url(url.toStdString()) {}

    bool connect(QString *why)
    {
        try {
            m_work.reset();
            m_prepared.clear();
            m_conn = std::make_unique<pqxx::connection>(m_url);
            return true;
        } catch (const std::exception &e) {
            m_conn.reset();
            *why = QString::fromUtf8(e.what()).trimmed();
            fail(DbFault::Connection, *why);
            return false;
        }
    }

    Dialect dialect() const override { return Dialect::Postgres; }

    bool exec(const QByteArray &sql, const SqlParams &params, SqlRows *rows) override
    {
        if (!m_conn) {
            fail(DbFault::Connection, "not connected");
            return false;
        }
        try {
            const std::string name = prepared(sql);
            const std::vector<std::string> values = textParams(params);
            pqxx::result r;
            if (m_work) {
                r = m_work->exec_prepared(name, pqxx::prepare::make_dynamic_params(values));
            } else {
                pqxx::nontransaction n(*m_conn);
                r = n.exec_prepared(name, pqxx::prepare::make_dynamic_params(values));
            }
            m_changes = r.affected_rows();
            if (rows)
                collect(r, rows);
            clearFault();
            return true;
        } catch (const pqxx::broken_connection &e) {
            return caught(DbFault::Connection, e.what());
        } catch (const pqxx::sql_error &e) {
            return caught(retryable(e.sqlstate()) ? DbFault::Retry : DbFault::Data, e.what());
        } catch (const std::exception &e) {
            return caught(connected() ? DbFault::Data : DbFault::Connection, e.what());
        }
    }

    qint64 changes() const override { return m_changes; }

    bool begin() override
    {
        if (!m_conn) {
            fail(DbFault::Connection, "not connected");
            return false;
        }
        try {
            m_work = std::make_unique<pqxx::work>(*m_conn);
            return true;
        } catch (const std::exception &e) {
            return caught(connected() ? DbFault::Data : DbFault::Connection, e.what());
        }
    }

    bool commit() override
    {
        if (!m_work) {
            fail(DbFault::Data, "no transaction");
            return false;
        }
        try {
            m_work->commit();
            m_work.reset();
            return true;
        } catch (const pqxx::in_doubt_error &e) {
            // The server may or may not have the rows: send no acknowledgement
            // and let the gateway's resend find out, as duplicates are cheap.
            m_work.reset();
            return caught(DbFault::Connection, e.what());
        } catch (const std::exception &e) {
            m_work.reset();
            return caught(connected() ? DbFault::Retry : DbFault::Connection, e.what());
        }
    }

    void rollback() override
    {
        try {
            m_work.reset();  // aborts what was not committed
        } catch (...) {
        }
    }

    bool reconnect() override
    {
        QString why;
        return connect(&why);
    }

private:
    bool connected() const { return m_conn && m_conn->is_open(); }

    // The same few statements run again and again: planned once per
    // connection. Multi-row statements come in at most a few hundred row
    // counts, so the set stays small. Throws as libpqxx does; exec() catches.
    std::string prepared(const QByteArray &sql)
    {
        auto it = m_prepared.find(sql);
        if (it != m_prepared.end())
            return it->second;
        const std::string name = "s" + std::to_string(m_prepared.size());
        m_conn->prepare(name, std::string(sql.constData(), sql.size()));
        m_prepared.emplace(sql, name);
        return name;
    }

    bool caught(DbFault f, const char *what)
    {
        fail(f, QString::fromUtf8(what).trimmed());
        return false;
    }

    static void collect(const pqxx::result &r, SqlRows *rows)
    {
        for (const auto &row : r) {
            SqlRow out;
            out.reserve(row.size());
            for (const auto &field : row)
                out.emplace_back(field.c_str(), static_cast<int>(field.size()));
            rows->push_back(std::move(out));
        }
    }

    std::string m_url;
    std::unique_ptr<pqxx::connection> m_conn;
    std::unique_ptr<pqxx::work> m_work;  // declared after m_conn: ended before it
    qint64 m_changes = 0;
    std::map<QByteArray, std::string> m_prepared;  // SQL text to statement name
};

}  // namespace

std::unique_ptr<DbConn> openPostgres(const QString &url, QString *why)
{
    auto conn = std::make_unique<PgConn>(url);
    if (!conn->connect(why))
        return nullptr;
    return conn;
}

}  // namespace platform
