// The cloud's online edits and device writes, in process, against a libmodbus
// slave and a nanomsg peer as the agent.
#include "AlarmData/AlarmData.h"
#include "HistoricalData/HistoricalData.h"
#include "IotToMqttComm/IotToMqttComm.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "RealData/RealData.h"
#include "SQLiteDB/SQLiteDB.h"
#include "cloudlinkfixture.h"
#include "device_comm/communication.h"
#include "modbusslave.h"
#include "tcplink.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace lumbra::test;

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
