// One database connection, SQLite or PostgreSQL, behind the few calls the
// store needs. Statements are written once, with $1, $2 ... placeholders,
// and run on either. Nothing here throws: a failure is a false return with
// the reason in error().
#pragma once

#include <QByteArray>
#include <QString>

#include <memory>
#include <vector>

namespace platform {

struct SqlParam {
    SqlParam(qint64 n) : isInt(true), number(n) {}  // NOLINT: parameters read as values
    SqlParam(int n) : isInt(true), number(n) {}
    SqlParam(quint32 n) : isInt(true), number(n) {}
    SqlParam(const QString &t) : text(t.toUtf8()) {}
    SqlParam(const QByteArray &t) : text(t) {}
    SqlParam(const char *t) : text(t) {}
    bool isInt = false;
    qint64 number = 0;
    QByteArray text;
};
using SqlParams = std::vector<SqlParam>;
using SqlRow = std::vector<QByteArray>;
using SqlRows = std::vector<SqlRow>;

enum class Dialect { Sqlite, Postgres };

enum class DbFault {
    None,
    Data,        // this statement or its values: the connection is fine
    Retry,       // a deadlock or serialisation failure: the same work may succeed
    Connection,  // the server is gone; reconnect()
};

class DbConn {
public:
    virtual ~DbConn() = default;
    virtual Dialect dialect() const = 0;
    // Runs one statement, in the open transaction if there is one.
    virtual bool exec(const QByteArray &sql, const SqlParams &params = {}, SqlRows *rows = nullptr) = 0;
    // Rows the last INSERT/UPDATE/DELETE changed.
    virtual qint64 changes() const = 0;
    virtual bool begin() = 0;
    virtual bool commit() = 0;
    virtual void rollback() = 0;
    virtual bool reconnect() = 0;
    DbFault fault() const { return m_fault; }
    const QString &error() const { return m_error; }

    // The first cell of the first row, or def.
    qint64 scalar(const QByteArray &sql, const SqlParams &params, qint64 def = -1);

protected:
    void fail(DbFault f, const QString &why)
    {
        m_fault = f;
        m_error = why;
    }
    void clearFault() { m_fault = DbFault::None; }

private:
    DbFault m_fault = DbFault::None;
    QString m_error;
};

// A SQLite file path, or a postgresql:// (postgres://) URL. Null with *why
// when it cannot be opened.
std::unique_ptr<DbConn> openDb(const QString &target, QString *why);
bool isPostgresUrl(const QString &target);

std::unique_ptr<DbConn> openSqlite(const QString &path, QString *why);
std::unique_ptr<DbConn> openPostgres(const QString &url, QString *why);

}  // namespace platform
