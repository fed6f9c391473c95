// The store wrapper against real SQLite files in a temp dir.
#include "SQLiteDB/SQLiteDB.h"
#include "testsupport.h"

#include <QFile>
#include <gtest/gtest.h>

using namespace lumbra::test;

TEST(SQLiteDB, SelectIsFlatRowByRowAndAppends)
{
    WorkDir work;
    SQLiteDB db("history_iot.db");
    ASSERT_TRUE(db.createTableSQL("historydata"));
    for (int i = 1; i <= 3; ++i)
        ASSERT_TRUE(db.insert(QString("INSERT INTO historydata VALUES(%1,'v%1',NULL)").arg(i).toStdString()));
    QStringList out{"kept"};
    ASSERT_TRUE(db.select("select sampleID, datetime from historydata", out));
    EXPECT_EQ(out, QStringList({"kept", "1", "", "2", "", "3", ""}));
    EXPECT_EQ(db.dataNum("historydata"), 3u);
}

TEST(SQLiteDB, FailuresAreLoggedAndReported)
{
    LogCapture log;
    WorkDir work;
    SQLiteDB db("alarm_iot.db");
    EXPECT_EQ(db.dataNum("nosuchtable"), 0u);
    EXPECT_TRUE(log.contains("SQL error:no such table: nosuchtable [select count(rowid) from nosuchtable]"));
    QStringList out;
    EXPECT_FALSE(db.select("select * from nosuchtable", out));
    EXPECT_TRUE(out.isEmpty());
    EXPECT_TRUE(db.closeDb());
    EXPECT_FALSE(db.executeSQL("VACUUM;"));
}

// Statements are built by substitution: an unescaped quote breaks them, an
// escaped one is stored as it was.
TEST(SQLiteDB, QuotesNeedEscapingByTheCaller)
{
    WorkDir work;
    SQLiteDB db("cacheMqtt.db");
    ASSERT_TRUE(db.executeSQL("CREATE TABLE IF NOT EXISTS mqttForward (topic TEXT, data TEXT, datetime TEXT);"));
    const QString text = "it's 5' long";
    EXPECT_FALSE(db.insert(QString("INSERT INTO mqttForward VALUES('t','%1','0')").arg(text).toStdString()));
    ASSERT_TRUE(db.insert(QString("INSERT INTO mqttForward VALUES('t','%1','0')").arg(sqlQuote(text)).toStdString()));
    QStringList out;
    ASSERT_TRUE(db.select("select data from mqttForward", out));
    EXPECT_EQ(out, QStringList{text});
}

TEST(SQLiteDB, UnusableFilesAreLoggedNotFatal)
{
    LogCapture log;
    WorkDir work;
    work.write("history_iot.db", QByteArray(4096, 'x'));
    SQLiteDB corrupt("history_iot.db");
    EXPECT_FALSE(corrupt.createTableSQL("historydata"));
    EXPECT_TRUE(log.contains("file is not a database"));

    SQLiteDB missingDir("nodir/sub/alarm_iot.db");
    EXPECT_FALSE(missingDir.isOpen());
    EXPECT_TRUE(log.contains("Cannot open database:"));
    EXPECT_FALSE(missingDir.createTableSQL("historydata"));
}
