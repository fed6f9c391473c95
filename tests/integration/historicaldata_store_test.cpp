// The history service's configuration and store, on local registers only.
#include "HistoricalData/HistoricalData.h"
#include "generalFunc/globals.h"
#include "testsupport.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>

#include <atomic>
#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

std::atomic<qint64> g_now{1};
qint64 testClock()
{
    return g_now;
}

const char kConfig[] = "iotRunTime/HistoryConfiguration.json";
// Group 1 samples local word 0 every second.
const char kOneGroup[] = R"({"upload_func_state":true,"data":[{"group_id":1,"sample_method":1,
    "sample_interval":"0,0,1","sample_data":[{"data_type":0,"data_readAddress":{"block":"LW","no":"0"}}]}]})";

class HistoryStore : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    HistoricalData *his = HistoricalData::getInstance();

    void TearDown() override { his->stop(); }
    void start(const QByteArray &config)
    {
        work.write(kConfig, config);
        his->setClock(&testClock);
        his->init();
    }
};

}  // namespace

TEST_F(HistoryStore, UnusableConfigurationLeavesTheServiceStopped)
{
    const struct {
        QByteArray text;  // null: no file; "/": a directory in its place
        const char *logged;
    } cases[] = {{QByteArray(), "Historical data config file no such"},
                 {"/", "Historical data config file open fail"},
                 {"{\"data\":[", "Historical data config parse fail"}};
    for (const auto &c : cases) {
        QFile::remove(work.file(kConfig));
        QDir().rmdir(work.file(kConfig));
        if (c.text == "/")
            QDir().mkpath(work.file(kConfig));
        else if (!c.text.isNull())
            work.write(kConfig, c.text);
        his->init();
        EXPECT_TRUE(log.contains(c.logged)) << c.logged;
        EXPECT_FALSE(his->isRunning()) << c.logged;
    }
}

TEST_F(HistoryStore, CorruptDatabaseIsLoggedAndTheServiceKeepsRunning)
{
    work.write("history_iot.db", QByteArray(8192, 'x'));
    start(kOneGroup);
    ASSERT_TRUE(his->isRunning());
    g_now = 2;
    EXPECT_TRUE(eventually([&] { return log.count("SQL error") >= 3; }));  // table, count, insert
    EXPECT_TRUE(his->isRunning());
}
