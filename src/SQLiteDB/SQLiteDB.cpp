#include "SQLiteDB.h"

#include "generalFunc/globals.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>

namespace {

// A second writer (a test, a shell on the box) holds the file for a moment;
// waiting beats failing an insert and losing the sample.
const int kBusyWaitMs = 2000;

}  // namespace

SQLiteDB::SQLiteDB(const char *file)
{
    std::printf("sqlite3 version:%s%d", sqlite3_libversion(), 1);
    std::fflush(stdout);
    if (sqlite3_open(file, &m_db) != SQLITE_OK) {
        zlog_error(g_zlog, "Cannot open database:%s %s", m_db ? sqlite3_errmsg(m_db) : "out of memory", file);
        sqlite3_close(m_db);
        m_db = nullptr;
        return;
    }
    sqlite3_busy_timeout(m_db, kBusyWaitMs);
}

SQLiteDB::~SQLiteDB()
{
    // _v2: a statement left unfinalised must not keep the file open forever.
    sqlite3_close_v2(m_db);
}

void SQLiteDB::logError(char *error, const std::string &sql)
{
    zlog_error(g_zlog, "SQL error:%s [%s]", error ? error : "unknown", sql.c_str());
    sqlite3_free(error);
}

bool SQLiteDB::executeSQL(std::string sql)
{
    char *error = nullptr;
    int rc;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        rc = sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &error);
    }
    if (rc == SQLITE_OK)
        return true;
    if (!error && !m_db)
        error = sqlite3_mprintf("%s", "no database open");
    logError(error, sql);
    return false;
}

bool SQLiteDB::createTableSQL(const char *table)
{
    return executeSQL(QString("CREATE TABLE IF NOT EXISTS %1 (sampleID INT NOT NULL, data TEXT, datetime TEXT);")
                          .arg(table)
                          .toStdString());
}

bool SQLiteDB::VACUUM()
{
    return executeSQL("VACUUM;");
}

bool SQLiteDB::useIncrementalVacuum()
{
    QStringList mode;
    if (!select("PRAGMA auto_vacuum;", mode) || mode.isEmpty())
        return false;
    if (mode.first() == "2")  // INCREMENTAL already
        return true;
    return executeSQL("PRAGMA auto_vacuum=INCREMENTAL;") && VACUUM();
}

bool SQLiteDB::compact()
{
    return executeSQL("PRAGMA incremental_vacuum;");
}

bool SQLiteDB::closeDb()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (sqlite3_close(m_db) != SQLITE_OK)
        return false;
    m_db = nullptr;
    return true;
}

unsigned SQLiteDB::dataNum(const char *table)
{
    QStringList cells;
    if (!select(QString("select count(rowid) from %1").arg(table).toStdString(), cells) || cells.isEmpty())
        return 0;
    unsigned count = cells.first().toUInt();
    zlog_debug(g_zlog, "%s db data count:%u", table, count);
    return count;
}

bool SQLiteDB::select(std::string sql, QStringList &out)
{
    char **table = nullptr;
    int rows = 0;
    int columns = 0;
    char *error = nullptr;
    int rc;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        rc = sqlite3_get_table(m_db, sql.c_str(), &table, &rows, &columns, &error);
    }
    if (rc != SQLITE_OK) {
        if (!error && !m_db)
            error = sqlite3_mprintf("%s", "no database open");
        logError(error, sql);
        return false;
    }
    out.reserve(out.size() + rows * columns);
    for (int i = columns; i < (rows + 1) * columns; ++i)
        out.append(table[i] ? QString::fromUtf8(table[i]) : QString());
    sqlite3_free_table(table);
    return true;
}

QString sqlQuote(const QString &text)
{
    QString quoted = text;
    return quoted.replace('\'', "''");
}
