// Rows the history service stored survive the process being killed outright
// and reach the cloud after the restart.
#include "SQLiteDB/SQLiteDB.h"
#include "gatewaybox.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QSet>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

const char kHistory[] = R"({"upload_func_state":true,"compressed":false,"data":[
  {"group_id":1,"group_name":"cycle","sample_interval":"0,0,1","sample_method":1,
   "sample_data":[{"data_code":1,"data_type":0,"data_readAddress":{"link":"PLC1","block":"4X","no":"0","sta":1,"length":1}}]},
  {"group_id":2,"group_name":"edge","sample_interval":"0,0,1","sample_method":2,"trigger_method":"2",
   "triggerAddress":{"link":"PLC1","block":"0X","no":"5","sta":1,"length":1},
   "sample_data":[{"data_code":2,"data_type":0,"data_readAddress":{"link":"PLC1","block":"4X","no":"1","sta":1,"length":1}}]}]})";

QSet<QString> storedTimes(const QString &dbFile)
{
    SQLiteDB db(dbFile.toLocal8Bit().constData());
    QStringList cells;
    db.select("select datetime from historydata where sampleID=1", cells);
    return QSet<QString>(cells.begin(), cells.end());
}

}  // namespace

TEST(HistoryRestart, RowsStoredBeforeAKillAreKeptAndSentAfterRestart)
{
    GatewayBox box(MODBUS_TCP_DRIVER);
    ASSERT_TRUE(box.ready());
    box.slave().setHolding(0, 42);
    box.writeConfig("HistoryConfiguration.json", kHistory);
    const QString dbFile = box.workPath() + "/history_iot.db";

    // The cloud link stays down, so the rows pile up unsent.
    ASSERT_TRUE(box.start());
    QSet<QString> before;
    ASSERT_TRUE(eventually([&] { return (before = storedTimes(dbFile)).size() >= 3; }, 8000))
        << box.gateway().output().toStdString();
    box.gateway().kill();
    const QSet<QString> afterKill = storedTimes(dbFile);
    EXPECT_TRUE(afterKill.contains(before));

    ASSERT_TRUE(box.start());
    ASSERT_TRUE(box.answerStatusRequest());
    box.slave().setCoil(5, true);  // the edge group's sample asks for a send pass
    AgentUpload up;
    QSet<QString> sent;
    for (int i = 0; i < 5 && !sent.contains(afterKill); ++i) {
        up = box.agent().receiveTopic("/DevSend/Sequential/HisData", 5000);
        ASSERT_TRUE(up.ok()) << (box.gateway().waitForOutput("never", 500), box.gateway().output().toStdString());
        if (up.msg.value("group_id").toInt() != 1)
            continue;
        for (const QJsonValue &row : up.msg.value("data").toArray()) {
            sent.insert(row.toObject().value("data_time").toString());
            EXPECT_EQ(row.toObject().value("data_text").toString(), "42");
        }
    }
    EXPECT_TRUE(sent.contains(afterKill));
    EXPECT_EQ(up.msg.value("sn_code").toString(), GatewayBox::kSerial);
}
