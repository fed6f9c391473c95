// Forwarding records, triggers and payload pieces, without a broker.
#include "MqttCliManager/MqttCliManager.h"
#include "MqttCliManager/mqtttopic.h"
#include "generalFunc/globals.h"
#include "fdend.h"
#include "testsupport.h"

#include <QFileInfo>
#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace lumbra::forward;
using lumbra::test::LogCapture;
using lumbra::test::WorkDir;
using Topic = MqttClient::topicData_t;

namespace {

Topic trigger(int condition, const char *value, const char *min = "", const char *max = "")
{
    Topic t;
    t.conditionCode = condition;
    t.triggerValue = value;
    t.min = min;
    t.max = max;
    return t;
}

// Whether each value in turn fires the trigger.
QString fired(Topic t, const QStringList &values)
{
    QString out;
    for (const QString &v : values)
        out += triggerFires(t, v) ? '1' : '0';
    return out;
}

}  // namespace

TEST(ForwardTrigger, FiresOnChangeOrWhenAConditionStartsToHold)
{
    const QStringList values{"5", "5", "12", "12", "3", "12", "x"};
    EXPECT_EQ(fired(trigger(0, ""), values), "0010111");
    EXPECT_EQ(fired(trigger(1, "10"), values), "0010010");
    EXPECT_EQ(fired(trigger(3, "10"), values), "1000100");
    EXPECT_EQ(fired(trigger(5, "12"), values), "0010010");
    EXPECT_EQ(fired(trigger(7, "", "4", "6"), values), "1000000");
    EXPECT_EQ(fired(trigger(8, "", "4", "6"), values), "0010000");
    // A limit that is no number never fires.
    EXPECT_EQ(fired(trigger(1, "ten"), values), "0000000");
}

TEST(ForwardRecords, UnitsIntervalsAndFunctions)
{
    const MqttClient::Settings s = settingsFromJson(QJsonDocument::fromJson(
        R"({"server_config_id":"4","host":"h","port":"1884","push_period":2,"push_unit":1,"keep_alive":0})").object());
    EXPECT_EQ(s.configId, 4);
    EXPECT_EQ(s.port, 1884);
    EXPECT_EQ(s.pushPeriod, 120);
    EXPECT_EQ(s.keepAlive, 60);

    Topic t = topicFromJson(QJsonDocument::fromJson(
        R"({"func_type_name":"","func_type":5,"send_interval":3,"send_interval_type":3,"send_interval_code":2})").object());
    EXPECT_EQ(funcOf(t), Func::WriteRealData);
    EXPECT_EQ(intervalSeconds(t, 7), 3 * 3600);
    t.sendIntervalType = 2;
    EXPECT_EQ(intervalSeconds(t, 7), 3);
    t.sendIntervalType = 1;
    EXPECT_EQ(intervalSeconds(t, 7), 7);
    t.funcTypeName = "rtdsend";
    EXPECT_EQ(funcOf(t), Func::RtdSend);
}

TEST(ForwardPayload, PlaceholdersCodesAndSystemVariables)
{
    Topic t;
    t.funcTypeName = "RTDSend";
    t.json = R"({"a":"%value_3%","b":%value_12%,"c":%value_3%})";
    EXPECT_EQ(topicCodes(t), (QList<int>{3, 12}));
    t.configIds = "12, 4";
    EXPECT_EQ(topicCodes(t), (QList<int>{12, 4}));
    t.funcTypeName = "AlarmSend";
    EXPECT_EQ(topicCodes(t), (QList<int>{3, 12}));

    QString text = t.json;
    fillPlaceholder(text, "value_3", R"(say "hi" \o/)");
    EXPECT_EQ(text, R"({"a":"say \"hi\" \\o/","b":%value_12%,"c":say \"hi\" \\o/})");

    g_zonetime = 3600;
    const QDateTime when = QDateTime::fromSecsSinceEpoch(1700000000);
    QString sys = "%timestamp%|%datetime%|%timestamp_long_ms%";
    MqttCliManager::replaceSysVar(sys, when);
    const QStringList parts = sys.split('|');
    EXPECT_EQ(parts.at(0), "1699996400");
    EXPECT_EQ(parts.at(1), when.toString("yyyy-MM-dd hh:mm:ss"));
    // The millisecond stamp is the time of sending, not when.
    EXPECT_NEAR(parts.at(2).toDouble(), QDateTime::currentMSecsSinceEpoch() - 3600000.0, 5000);
    g_zonetime = 0;
}

TEST(ForwardManager, MissingOrBrokenFileGivesNoClients)
{
    LogCapture log;
    WorkDir work;
    MqttCliManager *mgr = MqttCliManager::getInstance();
    mgr->init();
    EXPECT_EQ(mgr->clientCount(), 0);
    EXPECT_EQ(log.count("./iotRunTime/ServerCfg.json open fail"), 1);
    work.write("iotRunTime/ServerCfg.json", "{\"data\":[");
    mgr->init();
    EXPECT_EQ(mgr->clientCount(), 0);
    EXPECT_TRUE(log.contains("json ./iotRunTime/ServerCfg.json parse fail:"));
    // Online edits of nothing change nothing.
    mgr->OnlineMQTopicSet("[1,2");
    EXPECT_TRUE(log.contains("mqtt topic set data json parse err:[1,2"));
    EXPECT_FALSE(mgr->setConfigFile(R"({"operation_type":"rename","data":[{"server_config_id":1}]})"));
    EXPECT_EQ(QString::fromUtf8(lumbra::test::readFile(work.file("iotRunTime/ServerCfg.json"))), "{\"data\":[");
}

TEST(ForwardCache, DeletingFromAnEmptyCacheSucceedsAndCompacts)
{
    WorkDir work;
    MqttClient::Settings s;
    s.clientId = "a/../b";
    s.host = "127.0.0.1";
    s.port = lumbra::test::freeTcpPort();
    s.useOfflineCache = true;
    s.cacheDir = work.file("cache");
    MqttClient client(s);
    client.init();
    const QString db = work.file("cache/a_.._bMqtt.db");
    ASSERT_TRUE(QFileInfo::exists(db));
    EXPECT_TRUE(client.delCachedb(1));
    EXPECT_EQ(client.cachedRows(), 0u);
    EXPECT_LE(QFileInfo(db).size(), 8192);
    client.destroyClient();
}
