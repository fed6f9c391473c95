// The cloud protocol against a platform simulator on a real nanomsg PAIR socket.
#include "AlarmData/AlarmData.h"
#include "HistoricalData/HistoricalData.h"
#include "IotConfig/IotConfig.h"
#include "IotToMqttComm/IotToMqttComm.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "Macro/Macro.h"
#include "RealData/RealData.h"
#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "fdend.h"
#include "platformsim.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

class CloudProtocol : public ::testing::Test {
protected:
    WorkDir work;
    BoxRoot box;
    LogCapture log;
    std::unique_ptr<AgentPeer> agent;
    std::unique_ptr<PlatformSim> sim;

    void SetUp() override
    {
        box.write("/usr/brenta/iot_conf/sn.conf", "SIM-1");
        const QString url = QString("tcp://127.0.0.1:%1").arg(freeTcpPort());
        setenv("LUMBRA_AGENT_URL", url.toLocal8Bit().constData(), 1);
        agent = std::make_unique<AgentPeer>(url);
        ASSERT_TRUE(agent->bound());
        sim = std::make_unique<PlatformSim>(*agent);
        MqttMsgEvent::MqttDealMapInit();
        deviceInfo::getInstance()->init();
        IotToMqttComm::getInstance()->init();
        ASSERT_TRUE(agent->send(R"({"topic":"mqtt_status_Notification","status":true})"));
    }
    void TearDown() override
    {
        IotConfig::getInstance()->stop();
        Macro::getInstance()->stop();
        IotToMqttComm::getInstance()->stop(2000);
    }

    int requestsOf(int kind) const
    {
        int n = 0;
        for (const auto &r : sim->requests)
            n += r.kind == kind;
        return n;
    }
};

}  // namespace

TEST_F(CloudProtocol, RequestsFollowTheRepliesOwnKindAndRepeatUnanswered)
{
    IotConfig *sync = IotConfig::getInstance();
    sim->setReply(0, R"({"data":[],"last_updata_time":"1"})");
    sync->init();
    ASSERT_TRUE(sim->serve([&] { return requestsOf(1) > 0; }, 8000));
    EXPECT_TRUE(sim->announced);
    EXPECT_EQ(sim->requests.first().kind, 0);
    // Kind 1 is awaited; a reply for kind 3 moves the sequence to kind 4.
    sim->command(PlatformSim::replyTopic(3), R"({"data":[],"last_updata_time":"1"})");
    ASSERT_TRUE(sim->serve([&] { return requestsOf(4) > 0; }, 5000));
    EXPECT_EQ(requestsOf(2), 0);

    // An unparsable reply counts as none: the request comes again 3 s later.
    sim->command(PlatformSim::replyTopic(4), "{broken");
    QElapsedTimer t;
    t.start();
    ASSERT_TRUE(sim->serve([&] { return requestsOf(4) > 1; }, 5000));
    EXPECT_GE(t.elapsed(), 2000);
    EXPECT_TRUE(log.contains("Script recv json error:{broken"));

    sim->replyUnchanged();
    ASSERT_TRUE(sim->serve([&] { return sync->isFinished(); }, 8000));
    EXPECT_FALSE(sim->restartRequested);
    EXPECT_EQ(sync->changeFlags(), 0u);
    EXPECT_FALSE(QFile::exists(IotConfig::fileOf(4)));
}

TEST_F(CloudProtocol, ReplyWithDataIsStoredAcknowledgedAndRestartsTheGateway)
{
    work.write("iotRunTime/AlarmConfiguration.json", R"({"data":[],"last_updata_time":"2026-01-01"})");
    sim->replyUnchanged();
    const QByteArray rtd = R"({"upload_func_state":true,"data":[{"data_code":7},{"data_code":"x"}],)"
                           R"("last_updata_time":"2026-11-01 10:00:00"})";
    sim->setReply(1, rtd);
    IotConfig::getInstance()->init();
    ASSERT_TRUE(sim->serve([&] { return sim->restartRequested; }, 15000));
    ASSERT_EQ(sim->requests.size(), 6);
    for (const auto &r : sim->requests)
        EXPECT_EQ(r.lastUpdate, r.kind == 3 ? "2026-01-01" : "-1");
    EXPECT_EQ(readFile(IotConfig::fileOf(1)), rtd);
    const QList<AgentUpload> acks = sim->uploadsTo("/DevSend/OnlineRTDSetAck");
    ASSERT_EQ(acks.size(), 1);
    EXPECT_EQ(acks[0].text, R"({"sn_code":"SIM-1","data_index":"7,0","operation_result":1,"operation_type":"add"})");
    EXPECT_EQ(IotConfig::getInstance()->changeFlags(), 2u);

    // A link reply after the cycle opens a new one.
    ASSERT_TRUE(sim->serve([] { return IotConfig::getInstance()->isFinished(); }, 3000));
    sim->command(PlatformSim::replyTopic(0), R"({"data":[],"last_updata_time":"1"})");
    EXPECT_TRUE(sim->serve([&] { return sim->requests.size() > 6; }, 8000));
    EXPECT_TRUE(log.contains("IotConfig thread finish restart"));
}

TEST_F(CloudProtocol, UploadControlSwitchesLiveAndRewritesOnlyItsKeys)
{
    work.write("iotRunTime/RealTimeConfiguration.json",
               R"({"upload_func_state":false,"global_upload_time":5,"keep":"me","data":[]})");
    work.write("iotRunTime/HistoryConfiguration.json", R"({"upload_func_state":false,"data":[{"group_id":1}]})");
    work.write("iotRunTime/AlarmConfiguration.json", "not json");
    const auto ctrl = [&](int type) {
        sim->command("/DevRecv/DataUploadCtrl", QString(R"({"upload_func_state":true,"compressed":true,"data_type":%1,)"
                                                        R"("global_upload_time":9,"global_value_change_setting":true})")
                                                    .arg(type)
                                                    .toUtf8());
    };
    const QByteArray realBefore = readFile("iotRunTime/RealTimeConfiguration.json");
    ctrl(0);
    ctrl(4);
    ctrl(1);
    ASSERT_TRUE(eventually([] { return RealData::getInstance()->uploadTime() == 9; }));
    EXPECT_TRUE(RealData::getInstance()->uploadFunState() && RealData::getInstance()->compressed() &&
                RealData::getInstance()->valueChange());
    const QJsonObject real = QJsonDocument::fromJson(readFile("iotRunTime/RealTimeConfiguration.json")).object();
    EXPECT_NE(readFile("iotRunTime/RealTimeConfiguration.json"), realBefore);
    EXPECT_EQ(real.value("keep").toString(), "me");
    EXPECT_EQ(real.value("global_upload_time").toInt(), 9);
    EXPECT_TRUE(real.value("global_value_change_setting").toBool());
    EXPECT_FALSE(HistoricalData::getInstance()->uploadFunc());  // 0 and 4 changed nothing
    EXPECT_FALSE(AlarmData::getInstance()->uploadFunc());

    ctrl(3);
    ctrl(2);
    ASSERT_TRUE(eventually([] { return AlarmData::getInstance()->uploadFunc(); }));
    EXPECT_TRUE(HistoricalData::getInstance()->compress());
    const QJsonObject his = QJsonDocument::fromJson(readFile("iotRunTime/HistoryConfiguration.json")).object();
    EXPECT_TRUE(his.value("compressed").toBool());
    EXPECT_EQ(his.value("data").toArray().size(), 1);
    EXPECT_EQ(readFile("iotRunTime/AlarmConfiguration.json"), "not json");  // live only
    EXPECT_TRUE(log.contains("json parse fail:not json"));
    sim->command("/DevRecv/DataUploadCtrl", "[");
    EXPECT_TRUE(eventually([&] { return log.contains("DataUploadCtrl recv json error:["); }));
}

TEST_F(CloudProtocol, OnlineScriptEditsTakeEffectAndAcknowledgeAddsOnly)
{
    const QString add = R"({"operation_type":"add","data":[{"script_id":4,"type":2,"cycly_time":0,"flag":1,)"
                        R"x("text":"setdata('', 'LW', 5, 77, 0, nil, DATA_TYPE_WUB)"}]})x";
    sim->command("/DevRecv/OnlineScriptSet", add.toUtf8());
    ASSERT_TRUE(sim->serve([&] { return !sim->uploadsTo("/DevSend/ScriptConfigsetAck").isEmpty(); }, 5000));
    EXPECT_EQ(sim->uploadsTo("/DevSend/ScriptConfigsetAck")[0].msg.value("data_index").toString(), "4");
    const auto lw5 = [] {
        uint16_t v = 0;
        communication::getInstance()->getCommValue("", "LW", 5, 0, 1, reinterpret_cast<uchar *>(&v), 2);
        return v;
    };
    EXPECT_TRUE(eventually([&] { return lw5() == 77; }));

    sim->command("/DevRecv/OnlineScriptSet", R"({"operation_type":"delete","ids":"4"})");
    sim->command("/DevRecv/OnlineScriptSet", "][");
    ASSERT_TRUE(eventually([&] { return log.contains("json parse fail:"); }));
    EXPECT_EQ(Macro::getInstance()->runLua(4), 0);
    EXPECT_EQ(sim->uploadsTo("/DevSend/ScriptConfigsetAck").size(), 1);
}

TEST_F(CloudProtocol, AcknowledgementsReachTheirServices)
{
    sim->command("/DevRecv/MsgAck", R"({"reqTopic":"/DevSend/RTD","reqId":"1"})");
    sim->command("/DevRecv/MsgAck", "nope");
    sim->command("/DevRecv/HisData", R"({"group_id":3,"status":"no"})");
    EXPECT_TRUE(eventually([&] { return log.contains("recv history data acv err:"); }));
    EXPECT_TRUE(log.contains("MsgAck topic:/DevSend/RTD"));
    EXPECT_TRUE(log.contains("paser fail [nope]"));
}
