// The running gateway on an empty box: it gets its whole configuration from
// the platform simulator, asks to be restarted, and started again on what it
// stored it uploads the slave's data and asks for nothing more.
#include "gatewaybox.h"
#include "platformsim.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

QByteArray reply(const QString &body, const char *time)
{
    return QString(R"({%1,"last_updata_time":"%2"})").arg(body, time).toUtf8();
}

const char *const kAddr = R"("link":"PLC1","block":"4X","sta":1,"type":0,"length":1)";

QByteArray realTime()
{
    return reply(QString(R"("upload_func_state":true,"global_upload_time":1,"data":[{"data_code":1,)"
                         R"("data_name":"level","data_type":0,"data_readAddress":{%1,"no":"0"}}])")
                     .arg(kAddr),
                 "2026-11-01 08:00:00");
}

QByteArray history()
{
    // A rising edge on coil 0 takes a sample and sends it at once.
    return reply(QString(R"("upload_func_state":true,"data":[{"group_id":5,"group_name":"g","sample_interval":"0,0,1",)"
                         R"("sample_method":2,"trigger_method":"2","triggerAddress":{"link":"PLC1","block":"0X",)"
                         R"("no":"0","sta":1,"length":1},"sample_data":[{"data_code":1,"data_name":"level",)"
                         R"("data_type":0,"data_readAddress":{%1,"no":"0"}}]}])")
                     .arg(kAddr),
                 "2026-11-01 08:00:01");
}

QByteArray alarms()
{
    return reply(QString(R"("upload_func_state":true,"data":[{"index":9,"alarm_level":1,"condition":5,)"
                         R"("data_type":0,"limit_value":"10","data_readAddress":{%1,"no":"1"}}])")
                     .arg(kAddr),
                 "2026-11-01 08:00:02");
}

}  // namespace

TEST(CloudSync, EmptyBoxIsConfiguredByThePlatformAndRunsOnItAfterTheRestart)
{
    GatewayBox box(MODBUS_TCP_DRIVER);
    ASSERT_TRUE(box.ready());
    QJsonObject link = QJsonDocument::fromJson(box.readConfig("LinkConfiguration.json")).object();
    link.insert("last_updata_time", "2026-11-01 07:59:59");
    box.removeConfig("LinkConfiguration.json");
    box.slave().setHolding(0, 321);
    box.slave().setHolding(1, 50);

    auto first = std::make_unique<PlatformSim>(box.agent());
    PlatformSim &sim = *first;
    const QByteArray docs[6] = {QJsonDocument(link).toJson(QJsonDocument::Compact), realTime(), history(), alarms(),
                                reply(R"("data":[])", "2026-11-01 08:00:03"),
                                reply(R"("data":[])", "2026-11-01 08:00:04")};
    for (int kind = 0; kind < 6; ++kind)
        sim.setReply(kind, docs[kind]);
    ASSERT_TRUE(box.start());
    ASSERT_TRUE(sim.serve([&] { return sim.restartRequested; }, 20000)) << box.gateway().output().toStdString();
    EXPECT_TRUE(sim.announced);
    ASSERT_EQ(sim.requests.size(), 6);
    const char *files[6] = {"LinkConfiguration.json", "RealTimeConfiguration.json", "HistoryConfiguration.json",
                            "AlarmConfiguration.json", "ScriptConfiguration.json", "ServerCfg.json"};
    for (int kind = 0; kind < 6; ++kind) {
        EXPECT_EQ(sim.requests[kind].kind, kind);
        EXPECT_EQ(sim.requests[kind].lastUpdate, "-1");
        EXPECT_EQ(box.readConfig(files[kind]), docs[kind]) << files[kind];
    }
    EXPECT_EQ(sim.uploadsTo("/DevSend/OnlineADSetAck").value(0).msg.value("data_index").toString(), "9");

    // The agent restarts it; the platform has nothing newer now.
    box.gateway().stop();
    PlatformSim again(box.agent());
    again.replyUnchanged();
    ASSERT_TRUE(box.start());
    const auto sawAll = [&] {
        const QList<AgentUpload> rtd = again.uploadsTo("/DevSend/RTD");
        if (!rtd.isEmpty())
            box.slave().setCoil(0, true);  // the link is polling by now
        return again.requests.size() == 6 && !rtd.isEmpty() &&
               rtd.last().msg.value("data").toArray().at(0).toObject().value("data").toString() == "321" &&
               !again.uploadsTo("/DevSend/Sequential/HisData").isEmpty() && !again.uploadsTo("/DevSend/Alarm").isEmpty();
    };
    if (!again.serve(sawAll, 20000)) {
        QStringList seen;
        for (const AgentUpload &up : again.uploads)
            seen << up.topic + " " + up.text.left(120);
        FAIL() << again.requests.size() << " requests; uploads:\n" << seen.join('\n').toStdString() << "\n"
               << box.gateway().output().toStdString();
    }
    for (int kind = 0; kind < 6; ++kind)
        EXPECT_EQ(again.requests[kind].lastUpdate, QJsonDocument::fromJson(docs[kind]).object().value("last_updata_time").toString());
    again.serve([] { return false; }, 1500);
    EXPECT_FALSE(again.restartRequested);
    EXPECT_EQ(box.readConfig("RealTimeConfiguration.json"), docs[1]);
}
