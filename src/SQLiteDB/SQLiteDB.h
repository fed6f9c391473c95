// One open SQLite file, shared by threads: every statement on it goes through
// one mutex. Statements are plain text; callers escape the values they put
// into text literals (sqlQuote).
#pragma once

#include <QString>
#include <QStringList>

#include <mutex>
#include <string>

struct sqlite3;

class SQLiteDB {
public:
    explicit SQLiteDB(const char *file);
    ~SQLiteDB();
    SQLiteDB(const SQLiteDB &) = delete;
    SQLiteDB &operator=(const SQLiteDB &) = delete;

    bool isOpen() const { return m_db != nullptr; }

    bool executeSQL(std::string sql);
    // The history table form: sampleID, data, datetime.
    bool createTableSQL(const char *table);
    bool insert(std::string sql) { return executeSQL(std::move(sql)); }
    bool del(std::string sql) { return executeSQL(std::move(sql)); }
    bool update(std::string sql) { return executeSQL(std::move(sql)); }
    bool VACUUM();
    // A full VACUUM renumbers the rowids of tables without an INTEGER PRIMARY
    // KEY, and delivery remembers rows by rowid. These files give freed pages
    // back one by one instead: switch once, while nothing refers to a rowid
    // (the switch itself takes one VACUUM), then compact at will.
    bool useIncrementalVacuum();
    bool compact();
    // False while SQLite still holds the connection busy; it stays usable then.
    bool closeDb();
    // Rows in table; 0 also when the count failed.
    unsigned dataNum(const char *table);
    // Appends every cell, row by row, header left out, to out: n columns of
    // row r sit at r*n .. r*n+n-1. A NULL cell is an empty string.
    bool select(std::string sql, QStringList &out);

private:
    void logError(char *error, const std::string &sql);

    sqlite3 *m_db = nullptr;
    std::mutex m_mutex;
};

// text with every ' doubled, for a value inside a '...' literal.
QString sqlQuote(const QString &text);
