// Alarm events delivered and acknowledged per second, end to end through the
// outbox: a backlog of stored events goes out one at a time, each deleted by
// the acknowledgement of a platform that answers at once, as a storm would
// have the service do it.
#include "AlarmData/AlarmData.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "deliverybench.h"
#include "generalFunc/globals.h"
#include "testsupport.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

using namespace lumbra::test;

int main(int argc, char **argv)
{
    const int events = argc > 1 ? std::atoi(argv[1]) : 2000;
    zlog_init("/nonexistent");  // INFO to stdout; the summary is the last line
    g_zlog = zlog_get_category("iot");
    WorkDir work;
    work.write("iotRunTime/AlarmConfiguration.json", R"({"upload_func_state":true,"data":[]})");
    AlarmData *ad = AlarmData::getInstance();
    // Loading creates the table; the thread starts counting rows only once
    // the backlog is in.
    if (!ad->load() ||
        !lumbra::bench::fillTable("alarm_iot.db", "alarmdata", events, "1 + x % 8, 2, 1 + x % 2, 'ON', x")) {
        std::fprintf(stderr, "no alarm store\n");
        return 1;
    }
    ad->init();
    const auto ack = [](const Posted &p) {
        const QJsonObject ack{{"reqTopic", p.topic}, {"reqId", p.msg.value("reqId")}};
        MqttMsgEvent::MsgAck(QString::fromUtf8(QJsonDocument(ack).toJson(QJsonDocument::Compact)));
    };
    return lumbra::bench::drainAndReport("alarm_iot.db", "alarmdata", ack, [ad] { ad->stop(); }, [events](qint64 ms) {
        return QString("alarm delivery: %1 events/s sent, acknowledged and deleted one at a time through the outbox "
                       "(%2 events, the platform answering at once)")
            .arg(qRound64(events * 1000.0 / ms))
            .arg(events);
    });
}
