// The time to drain a backlog of stored history rows once the cloud is up:
// batches of up to 300 rows per group go out through the outbox, each
// deleted by the acknowledgement of a platform that answers at once.
#include "HistoricalData/HistoricalData.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "deliverybench.h"
#include "generalFunc/globals.h"
#include "testsupport.h"

#include <QStringList>

#include <cstdio>

using namespace lumbra::test;

int main(int argc, char **argv)
{
    const int rows = argc > 1 ? std::atoi(argv[1]) : 10000;
    const int groups = qMax(1, argc > 2 ? std::atoi(argv[2]) : 1);
    zlog_init("/nonexistent");  // INFO to stdout; the summary is the last line
    g_zlog = zlog_get_category("iot");
    WorkDir work;
    // Groups that never sample by themselves: only the backlog moves.
    QStringList items;
    for (int g = 1; g <= groups; ++g)
        items << QString(R"({"group_id":%1,"sample_method":0})").arg(g);
    work.write("iotRunTime/HistoryConfiguration.json",
               QString(R"({"upload_func_state":true,"data":[%1]})").arg(items.join(',')).toUtf8());
    HistoricalData *his = HistoricalData::getInstance();
    // Ten points a row, as a typical group stores them.
    const QString text = "'1234' || char(10) || '-12.34' || char(10) || '65000' || char(10) || '1.5' || char(10) || "
                         "'0' || char(10) || '1234' || char(10) || '-12.34' || char(10) || '65000' || char(10) || "
                         "'1.5' || char(10) || '1'";
    if (!his->load() ||
        !lumbra::bench::fillTable("history_iot.db", "historydata", rows,
                                  QString("1 + x % %1, %2, 1763700000 + x").arg(groups).arg(text))) {
        std::fprintf(stderr, "no history store\n");
        return 1;
    }
    his->init();
    const auto ack = [](const Posted &p) {
        MqttMsgEvent::recvHistoryDataAck(
            QString(R"({"status":"yes","group_id":%1})").arg(p.msg.value("group_id").toInt()));
    };
    return lumbra::bench::drainAndReport("history_iot.db", "historydata", ack, [his] { his->stop(); }, [=](qint64 ms) {
        return QString("history drain: %1 rows in %2 s once the cloud is up (%3 group(s), batches of up to 300 rows, "
                       "the platform answering at once)")
            .arg(rows)
            .arg(ms / 1000.0, 0, 'f', 2)
            .arg(groups);
    });
}
