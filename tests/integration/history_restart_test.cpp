// The gateway killed outright in the middle of history batches.
#include "SQLiteDB/SQLiteDB.h"
#include "gatewaybox.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QSet>
#include <QThread>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

const char kHistory[] = R"({"upload_func_state":true,"compressed":false,"data":[
  {"group_id":1,"group_name":"cycle","sample_interval":"0,0,1","sample_method":1,
   "sample_data":[{"data_code":1,"data_type":0,"data_readAddress":{"link":"PLC1","block":"4X","no":"0","sta":1,"length":1}}]},
  {"group_id":2,"group_name":"edge","sample_interval":"0,0,1","sample_method":2,"trigger_method":"2",
   "triggerAddress":{"link":"PLC1","block":"0X","no":"5","sta":1,"length":1},
   "sample_data":[{"data_code":2,"data_type":0,"data_readAddress":{"link":"PLC1","block":"4X","no":"1","sta":1,"length":1}}]}]})";

// A row as "<group> <time> <text>": the text is the number of the process
// that sampled it, so rows of two processes in one second differ.
using Rows = QSet<QString>;

QString rowKey(const QString &group, const QString &time, const QString &text)
{
    return group + " " + time + " " + text;
}

Rows stored(const QString &dbFile)
{
    SQLiteDB db(dbFile.toLocal8Bit().constData());
    QStringList cells;
    db.select("select sampleID,datetime,data from historydata", cells);
    Rows out;
    for (int i = 0; i + 2 < cells.size(); i += 3)
        out.insert(rowKey(cells[i], cells[i + 1], cells[i + 2]));
    return out;
}

Rows batchRows(const AgentUpload &up)
{
    Rows out;
    const QString group = QString::number(up.msg.value("group_id").toInt());
    for (const QJsonValue &row : up.msg.value("data").toArray())
        out.insert(rowKey(group, row["data_time"].toString(), row["data_text"].toString()));
    return out;
}

// Group 1's next batch; the edge group's rising edge asks for a pass
// whenever none is under way.
AgentUpload groupOneBatch(GatewayBox &box)
{
    for (int attempt = 0; attempt < 8; ++attempt) {
        const AgentUpload up = box.agent().receiveTopic("/DevSend/Sequential/HisData", 700);
        if (up.ok() && up.msg.value("group_id").toInt() == 1)
            return up;
        box.slave().setCoil(5, false);
        QThread::msleep(150);
        box.slave().setCoil(5, true);
    }
    return AgentUpload();
}

void acknowledgeGroupOne(GatewayBox &box)
{
    ASSERT_TRUE(box.agent().send(R"({"topic":"/DevRecv/HisData","msg":"{\"status\":\"yes\",\"group_id\":1}"})"));
}

std::string listed(const Rows &rows)
{
    QStringList keys(rows.begin(), rows.end());
    keys.sort();
    return keys.join(" | ").toStdString();
}

}  // namespace

TEST(HistoryRestart, KilledInTheMiddleOfBatchesTwentyTimesNoRowIsLostNoneDeletedUnsent)
{
    GatewayBox box(MODBUS_TCP_DRIVER);
    ASSERT_TRUE(box.ready());
    box.writeConfig("HistoryConfiguration.json", kHistory);
    const QString dbFile = box.workPath() + "/history_iot.db";
    {
        // A backlog, as after an outage: every batch is a full one, whose
        // delete takes a while to be killed in.
        SQLiteDB db(dbFile.toLocal8Bit().constData());
        ASSERT_TRUE(db.createTableSQL("historydata"));
        ASSERT_TRUE(db.executeSQL("WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < 4500) "
                                  "INSERT INTO historydata SELECT 1, 'old', x FROM n"));
    }
    Rows seen = stored(dbFile);  // every row known to have been stored
    Rows acked;  // every row of a batch the platform acknowledged
    int sentAgain = 0;
    for (int run = 0; run < 20; ++run) {
        box.slave().setHolding(0, static_cast<uint16_t>(run));
        ASSERT_TRUE(box.start());
        // The answer to the batch the last process was killed with comes
        // to this one, which has sent nothing yet: it must take nothing.
        if (run % 3 == 1)
            acknowledgeGroupOne(box);
        ASSERT_TRUE(box.answerStatusRequest()) << run << box.gateway().output().toStdString();
        const AgentUpload up = groupOneBatch(box);
        ASSERT_TRUE(up.ok()) << run << box.gateway().output().toStdString();
        const Rows sent = batchRows(up);
        sentAgain += sent.intersects(seen) ? 1 : 0;
        seen += sent;
        // Killed before the acknowledgement, a few milliseconds after it
        // (while the gateway deletes, or before it got to it), or once it
        // has acted on it.
        if (run % 3 != 0) {
            acknowledgeGroupOne(box);
            acked += sent;
            if (run % 3 == 1) {
                QThread::msleep(static_cast<unsigned long>(run / 3 * 2 % 8));
            } else {
                EXPECT_TRUE(box.gateway().waitForOutput("recv del data num", 3000)) << run;
            }
        }
        box.gateway().kill();
        while (!box.agent().receive(50).isEmpty()) {
        }

        const Rows now = stored(dbFile);
        const Rows gone = seen - now;
        EXPECT_TRUE((gone - acked).isEmpty()) << "run " << run << ", gone unacknowledged: " << listed(gone - acked);
        if (run % 3 == 2) {
            EXPECT_TRUE((now & sent).isEmpty()) << "run " << run << ", acknowledged but kept: " << listed(now & sent);
        }
        seen += now;
    }
    // Unacknowledged rows went out again after the restarts.
    EXPECT_GE(sentAgain, 6);
}
