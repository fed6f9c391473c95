// The cloud protocol in process: against a platform simulator on a real nanomsg
// PAIR socket, and the cloud's online edits and device writes against a
// libmodbus slave.
#include "AlarmData/AlarmData.h"
#include "HistoricalData/HistoricalData.h"
#include "IotConfig/IotConfig.h"
#include "IotToMqttComm/IotToMqttComm.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "Macro/Macro.h"
#include "RealData/RealData.h"
#include "SQLiteDB/SQLiteDB.h"
#include "cloudlinkfixture.h"
#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "modbusslave.h"
#include "platformsim.h"
#include "tcplink.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

class CloudProtocol : public CloudLinkFixture {
protected:
    std::unique_ptr<PlatformSim> sim;

    void SetUp() override
    {
        box.write("/usr/brenta/iot_conf/sn.conf", "SIM-1");
        deviceInfo::getInstance()->init();
        CloudLinkFixture::SetUp();
        sim = std::make_unique<PlatformSim>(agent);
        ASSERT_TRUE(agent.send(R"({"topic":"mqtt_status_Notification","status":true})"));
    }
    void TearDown() override
    {
        IotConfig::getInstance()->stop();
        Macro::getInstance()->stop();
        CloudLinkFixture::TearDown();
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

namespace {

QString addr(const char *block, int no)
{
    return QString(R"({"link":"PLC1","block":"%1","no":"%2","sta":1,"length":1})").arg(block).arg(no);
}

// A real-time or sampled point; fields end with a comma.
QString point(int code, int type, const char *block, int no, const QString &fields = "")
{
    return QString(R"({"data_code":%1,"data_type":%2,%3"data_readAddress":%4})").arg(code).arg(type).arg(fields,
                                                                                                          addr(block, no));
}

QString edit(const char *op, const QStringList &items)
{
    return QString(R"({"operation_type":"%1","data":[%2]})").arg(op, items.join(','));
}

const char kDelete[] = R"({"operation_type":"delete","ids":"%1"})";

class OnlineSet : public CloudLinkFixture {
protected:
    RealData *rd = RealData::getInstance();
    HistoricalData *his = HistoricalData::getInstance();
    AlarmData *ad = AlarmData::getInstance();

    void TearDown() override
    {
        rd->stop();
        his->stop();
        ad->stop();
        CloudLinkFixture::TearDown();
    }

    // The real-time service starts with points, the others with nothing.
    void start(const QStringList &points, const char *upload = "true")
    {
        const QString rtd = R"({"upload_func_state":%1,"global_upload_time":0,"data":[%2]})";
        work.write("iotRunTime/RealTimeConfiguration.json", rtd.arg(upload, points.join(',')).toUtf8());
        for (const char *name : {"iotRunTime/HistoryConfiguration.json", "iotRunTime/AlarmConfiguration.json"})
            work.write(name, R"({"upload_func_state":true,"data":[]})");
        rd->init();
        his->init();
        ad->init();
        comm->enableExternalAddrInfo(true);
    }
    QJsonArray fileItems(const char *name)
    {
        return QJsonDocument::fromJson(readFile(work.file(QString("iotRunTime/") + name))).object()["data"].toArray();
    }

    // The acknowledgement's "<operation_type> <data_index>".
    QString acked(const char *setTopic, const QString &payload)
    {
        send(setTopic, payload);
        const QJsonObject m = agent.receiveTopic(QString(setTopic).replace("DevRecv", "DevSend") + "Ack", 3000).msg;
        EXPECT_EQ(m.value("operation_result").toInt(), 1);
        return m.value("operation_type").toString() + " " + m.value("data_index").toString();
    }

    // Uploads until code shows want ("" for absent).
    bool uploads(int code, const QString &want)
    {
        return eventually([&] {
            QMap<int, QString> got;
            for (const QJsonValue &v : agent.receiveTopic("/DevSend/RTD", 2000).msg["data"].toArray())
                got.insert(v["code"].toInt(), v["data"].toString());
            return !got.isEmpty() && got.value(code) == want;
        }, 8000);
    }
    QStringList rows(const char *db, const QString &sql)
    {
        QStringList out;
        SQLiteDB(db).select(sql.toStdString(), out);
        return out;
    }
};

}  // namespace

TEST_F(OnlineSet, RealTimePointsComeChangeAndGoWhileRunning)
{
    slave->setHolding(1, 22);
    slave->setHolding(2, 33);
    start({point(1, 0, "4X", 0)});
    const char *set = "/DevRecv/OnlineRTDSet";
    // Malformed edits change nothing and are not answered: handled in order,
    // a reply to them would come before the add's.
    send(set, "{\"operation_type\":");
    send(set, edit("rename", {point(4, 0, "4X", 1)}));
    EXPECT_EQ(acked(set, edit("add", {point(2, 0, "4X", 1)})), "add 2");
    EXPECT_TRUE(uploads(2, "22"));
    // A modify of a point nobody added makes it exist, in the file as well.
    EXPECT_EQ(acked(set, edit("modify", {point(2, 0, "4X", 2), point(3, 0, "4X", 1)})), "modify 2,3");
    EXPECT_TRUE(uploads(2, "33") && uploads(3, "22"));
    EXPECT_EQ(fileItems("RealTimeConfiguration.json").size(), 3);

    EXPECT_EQ(acked(set, QString(kDelete).arg("2,3,x")), "delete 2,3,0");
    EXPECT_TRUE(uploads(2, ""));
    EXPECT_EQ(fileItems("RealTimeConfiguration.json").size(), 1);
    EXPECT_EQ(log.count("json parse fail:"), 1);
}

TEST_F(OnlineSet, HistoryGroupSamplesFromItsAddAndLosesItsRowsWithItsLabels)
{
    slave->setHolding(3, 4321);
    slave->setHolding(4, uint16_t(-15));
    start({});
    const char *set = "/DevRecv/OnlineHDSet";
    const QString group = R"({"group_id":5,"sample_method":1,"sample_interval":"0,0,1","sample_data":[%1]})";
    const QString data = "select data from historydata where sampleID=5";
    EXPECT_EQ(acked(set, edit("add", {group.arg(point(1, 0, "4X", 3))})), "add 5");
    EXPECT_TRUE(eventually([&] { return rows("history_iot.db", data).contains("4321"); }));

    const QString two = point(1, 0, "4X", 3) + "," + point(2, 2, "4X", 4, R"("data_devimalDigits":1,)");
    EXPECT_EQ(acked(set, edit("modify", {group.arg(two)})), "modify 5");
    // The store commits in its own time; the old rows go with that commit.
    EXPECT_TRUE(eventually([&] { return !rows("history_iot.db", data).contains("4321"); }));
    EXPECT_TRUE(eventually([&] { return rows("history_iot.db", data).contains("4321\n-1.5"); }));

    EXPECT_EQ(acked(set, QString(kDelete).arg(5)), "delete 5");
    EXPECT_TRUE(eventually([&] { return rows("history_iot.db", data).isEmpty(); }));
    EXPECT_TRUE(fileItems("HistoryConfiguration.json").isEmpty());
}

TEST_F(OnlineSet, AddedAlarmFiresAndAModifiedOneRecovers)
{
    slave->setHolding(6, 50);
    start({});
    const char *set = "/DevRecv/OnlineADSet";
    const QString alarm = R"({"index":7,"alarm_level":1,"condition":5,"data_type":0,"limit_value":"%1",)"
                          R"("data_readAddress":)" + addr("4X", 6) + "}";
    const QString events = "select type,value from alarmdata where alarm_id=7";
    EXPECT_EQ(acked(set, edit("add", {alarm.arg(10)})), "add 7");
    EXPECT_TRUE(eventually([&] { return rows("alarm_iot.db", events) == QStringList({"1", "50"}); }));
    EXPECT_EQ(acked(set, edit("modify", {alarm.arg(100)})), "modify 7");
    EXPECT_TRUE(eventually([&] { return rows("alarm_iot.db", events).mid(2) == QStringList({"2", "50"}); }));

    EXPECT_EQ(acked(set, QString(kDelete).arg(7)), "delete 7");
    EXPECT_TRUE(ad->AlarmCfgList().isEmpty());
    EXPECT_TRUE(fileItems("AlarmConfiguration.json").isEmpty());
}

TEST_F(OnlineSet, WrittenValuesReachTheDeviceAndAreReported)
{
    slave->setHolding(10, 77);
    start({point(1, -1, "0X", 0), point(2, 0, "4X", 0), point(3, 2, "4X", 1, R"("data_devimalDigits":2,)"),
           point(4, 1, "4X", 2), point(5, 4, "4X", 4),
           point(6, 6, "4X", 5, R"("data_deal_type":1,"zoom_ratio":"2","zoom_offset":"1",)"),
           point(7, 7, "4X", 7, R"("data_totalDigits":6,)"), point(8, 0, "4X", 10), point(9, 4, "4X", 10),
           point(10, 0, "4X", 3000)},
          "false");
    const char *const items[][2] = {{"1", "3"}, {"2", "65000"}, {"3", "-0.29"}, {"4", "100000"}, {"5", "1234"},
                                    {"6", "5"}, {"7", "Pump01X"},
                                    // Not written: no value of the type, no such point, refused by the device.
                                    {"8", "-5"}, {"9", "12G4"}, {"99", "1"}, {"x", "1"}, {"10", "1"}};
    QJsonArray request;
    for (const auto &item : items)
        request.append(QJsonObject{{"data_code", item[0]}, {"data_value", item[1]}});
    send("/DevRecv/WriteData", QJsonDocument(request).toJson());

    QStringList reported;
    for (const QJsonValue &v : agent.receiveTopic("/DevSend/RTD", 3000).msg["data"].toArray())
        reported << v["code"].toString() + "=" + v["data"].toString();
    EXPECT_EQ(reported.join(' '), "1=3 2=65000 3=-0.29 4=100000 5=1234 6=5 7=Pump01X");
    EXPECT_TRUE(log.contains("WriteData code:10 link:PLC1 reg:4X no:3000 not written: exception 2 (illegal data address)"))
        << log.text().toStdString();
    // 32-bit values high word first (0x40000000 is 2.0f, the 5 unscaled),
    // text high byte first.
    const QList<uint16_t> want{65000, uint16_t(-29), 0x0001, 0x86A0, 0x1234, 0x4000, 0,
                               'P' << 8 | 'u', 'm' << 8 | 'p', '0' << 8 | '1', 77};
    EXPECT_TRUE(eventually([&] {
        QList<uint16_t> got;
        for (int i = 0; i <= 10; ++i)
            got << slave->holding(i);
        return got == want && slave->coil(0);
    }));
}
