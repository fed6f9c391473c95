// lumbra-platform's HTTP side against the running process.
#include "fakegateway.h"
#include "mosquittobroker.h"
#include "platformrun.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

const char kToken[] = "s3cret";

class PlatformApi : public ::testing::Test {
protected:
    MosquittoBroker broker;
    std::unique_ptr<PlatformRun> platform;
    std::unique_ptr<FakeGateway> gw;
    std::unique_ptr<MqttProbe> commands;
    QString api = "/api/gateways/SN1";

    void SetUp() override
    {
        ASSERT_TRUE(broker.start());
        platform = std::make_unique<PlatformRun>(LUMBRA_PLATFORM_BINARY, broker.port());
        platform->addArgs({"--token", kToken});
        // Code 5 is the second point of history group 3.
        platform->writeConfig("SN1", "HistoryConfiguration.json",
                              R"({"data":[{"group_id":3,"sample_data":[{"data_code":4},{"data_code":5}]}]})");
        platform->writeConfig("SN1", "RealTimeConfiguration.json", R"({"data":[{"data_code":1,"data_name":"Flow"}]})");
        ASSERT_TRUE(platform->start()) << platform->output().toStdString();
        gw = std::make_unique<FakeGateway>(broker.port(), "SN1");
        commands = std::make_unique<MqttProbe>(broker.port(), "/SN1_3.0.0/DevRecv/#");
        ASSERT_TRUE(gw->connected() && commands->connected());
        ASSERT_TRUE(gw->publish("/DevSend/RTD", R"({"sn_code":"SN1","data":[{"code":1,"data":"7.5"}]})"));
        ASSERT_TRUE(eventually([&] { return platform->get(api + "/points").status == 200; }, 10000));
    }

    HttpReply post(const QString &path, const QByteArray &body, const QString &token = kToken)
    {
        return httpPost(platform->httpPort(), path, body, token);
    }
};

TEST_F(PlatformApi, ReadsAnswerWithTheGatewaysData)
{
    const QJsonArray gateways = platform->get("/api/gateways").json().array();
    ASSERT_EQ(gateways.size(), 1);
    EXPECT_EQ(gateways[0].toObject().value("sn").toString(), "SN1");
    EXPECT_TRUE(gateways[0].toObject().value("online").toBool());
    const QJsonObject point = platform->get(api + "/points").json().array().at(0).toObject();
    EXPECT_EQ(point.value("value").toString(), "7.5");
    EXPECT_EQ(point.value("name").toString(), "Flow");

    ASSERT_TRUE(gw->publish("/DevSend/Sequential/HisData", R"({"group_id":3,"data":[
        {"data_text":"1\n10","data_time":"100"},{"data_text":"2\n","data_time":"200"},{"data_text":"3\n30","data_time":"300"}]})"));
    ASSERT_TRUE(commands->take("/SN1_3.0.0/DevRecv/HisData", 1, 5000).size() == 1);
    // The unread sample at 200 has no value; from/to bound the times.
    EXPECT_EQ(platform->get(api + "/history?code=5").json().toJson(QJsonDocument::Compact),
              R"([{"time":100,"value":"10"},{"time":300,"value":"30"}])");
    EXPECT_EQ(platform->get(api + "/history?code=4&from=150&to=300").json().toJson(QJsonDocument::Compact),
              R"([{"time":200,"value":"2"},{"time":300,"value":"3"}])");
    EXPECT_EQ(platform->get(api + "/history?group=3&index=1&to=100").json().array().size(), 1);

    const struct {
        QString path;
        int status;
    } errors[] = {
        {api + "/history?code=99", 404},         // in no group
        {api + "/history?code=x", 400},
        {api + "/history", 400},
        {api + "/alarms?limit=0", 400},
        {"/api/gateways/NOPE/points", 404},
        {"/api/gateways/a%20b/points", 400},
        {"/api/gateways/..%2Fetc/points", 404},  // not one path segment: no gateway's path at all
        {"/api/nothing", 404},
    };
    for (const auto &e : errors)
        EXPECT_EQ(platform->get(e.path).status, e.status) << e.path.toStdString();
}

TEST_F(PlatformApi, CommandsNeedTheTokenAndTheirAnswersAreRecorded)
{
    EXPECT_EQ(post(api + "/write", R"({"code":9,"value":"1"})", "").status, 401);
    EXPECT_EQ(post(api + "/write", R"({"code":9,"value":"1"})", "wrong").status, 401);
    EXPECT_EQ(post(api + "/write", R"({"code":"9"})").status, 400);
    EXPECT_EQ(post("/api/gateways/NOPE/write", R"({"code":9,"value":"1"})").status, 404);
    EXPECT_EQ(post(api + "/edit/bogus", "{}").status, 404);
    EXPECT_EQ(post(api + "/edit/rtd", "[1]").status, 400);

    ASSERT_EQ(post(api + "/write", R"({"code":9,"value":12.5})").status, 202);
    const QList<MqttMessage> writes = commands->take("/SN1_3.0.0/DevRecv/WriteData", 1, 5000);
    ASSERT_EQ(writes.size(), 1);
    EXPECT_EQ(writes[0].payload, R"([{"data_code":"9","data_value":"12.5"}])");

    const QByteArray edit = R"({"operation_type":"delete","ids":"3,7"})";
    ASSERT_EQ(post(api + "/edit/rtd", edit).status, 202);
    EXPECT_EQ(QJsonDocument::fromJson(commands->take("/SN1_3.0.0/DevRecv/OnlineRTDSet", 1, 5000).value(0).payload),
              QJsonDocument::fromJson(edit));

    // The gateway answers both, as it does.
    gw->publish("/DevSend/RTD", R"({"sn_code":"SN1","data":[{"code":9,"data":"12.5"}]})");
    gw->publish("/DevSend/OnlineRTDSetAck",
                R"({"sn_code":"SN1","data_index":"3,7","operation_result":1,"operation_type":"delete"})");
    ASSERT_TRUE(eventually([&] {
        const QJsonArray edits = platform->get(api + "/edits").json().array();
        return edits.size() == 2 && edits[0].toObject().value("acked").toBool() &&
               edits[1].toObject().value("acked").toBool();
    }, 10000)) << platform->get(api + "/edits").body.constData();
    EXPECT_EQ(platform->get(api + "/edits").json().array().at(0).toObject().value("ack_ids").toString(), "3,7");
}

TEST_F(PlatformApi, TheEventStreamPushesAlarms)
{
    const QByteArray got = httpEvents(platform->httpPort(), "/api/events", 3000, [&] {
        gw->publish("/DevSend/Alarm", R"({"alarm_index":4,"alarm_level":3,"alarm_note":"ON","alarm_time":"77","reqId":"1"})");
    });
    EXPECT_TRUE(got.contains("event: alarm\ndata: {\"sn\":\"SN1\"")) << got.constData();
    EXPECT_TRUE(got.contains("\"index\":4")) << got.constData();
}

TEST_F(PlatformApi, BadInputFromTheBrokerIsDroppedAndTheRestStored)
{
    const QByteArray bad[][2] = {
        {"/DevSend/RTD", "{\"data\":[{"},
        {"/DevSend/RTDCompress", "\x78\x9c garbage"},
        {"/DevSend/Sequential/HisData", R"({"group_id":"x","data":[]})"},
        {"/DevSend/Alarm", "[]"},
        {"/DevSend/Nonsense", "{}"},
        {"/DevSend/RTD", QByteArray(5 << 20, '{')},
    };
    for (const auto &b : bad)
        gw->publish(b[0], b[1]);
    MqttProbe raw(broker.port(), "#");
    ASSERT_TRUE(raw.connected());
    raw.publish("/.._3.0.0/DevSend/DevConnInfoReq", R"({"last_updata_time":"-1"})");
    raw.publish("/_3.0.0/DevSend/RTD", "{}");
    ASSERT_TRUE(eventually([&] { return platform->status("refused") == 8; }, 10000)) << platform->output().toStdString();

    gw->publish("/DevSend/RTD", R"({"sn_code":"SN1","data":[{"code":1,"data":"8"}]})");
    EXPECT_TRUE(eventually([&] {
        return platform->get(api + "/points").json().array().at(0).toObject().value("value").toString() == "8";
    }, 10000));
    EXPECT_TRUE(platform->process().running());
    EXPECT_EQ(platform->get("/api/gateways").json().array().size(), 1);
}

}  // namespace
