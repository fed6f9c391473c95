// Forwarding records, their checks at load, triggers, payload templates and
// the cache, without a broker.
#include "MqttCliManager/MqttCliManager.h"
#include "MqttCliManager/mqttcache.h"
#include "MqttCliManager/mqttconfig.h"
#include "MqttCliManager/mqttpayload.h"
#include "MqttCliManager/mqtttopic.h"
#include "generalFunc/globals.h"
#include "fdend.h"
#include "testsupport.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QMap>

#include <limits>

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

QJsonObject object(const QString &json)
{
    return QJsonDocument::fromJson(json.toUtf8()).object();
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

TEST(ForwardRecords, ServerSettingsReadLeniently)
{
    MqttClient::Settings s;
    QString why;
    ASSERT_TRUE(serverFromJson(object(R"({"server_config_id":"4","host":"h","port":"1884","push_period":2,)"
                                      R"("push_unit":1,"keep_alive":0,"mqtt_version":"3.1.1"})"),
                               &s, &why));
    EXPECT_EQ(s.configId, 4);
    EXPECT_EQ(s.port, 1884);
    EXPECT_EQ(s.pushPeriod, 120);
    EXPECT_EQ(s.keepAlive, 60);
    EXPECT_EQ(s.mqttVersion, 4);
    ASSERT_TRUE(serverFromJson(object(R"({"host":"h","mqtt_version":"5.0","cafile":"ca.crt"})"), &s, &why));
    EXPECT_EQ(s.mqttVersion, 5);
    EXPECT_EQ(s.port, 8883);  // TLS
    EXPECT_TRUE(s.tls());

    Topic t = topicFromJson(object(R"({"func_type_name":"","func_type":5,"send_interval":3,"send_interval_type":3,)"
                                   R"("send_interval_code":2})"));
    EXPECT_EQ(funcOf(t), Func::WriteRealData);
    EXPECT_EQ(intervalSeconds(t, 7), 3 * 3600);
    t.sendIntervalType = 2;
    EXPECT_EQ(intervalSeconds(t, 7), 3);
    t.sendIntervalType = 1;
    EXPECT_EQ(intervalSeconds(t, 7), 7);
    t.funcTypeName = "rtdsend";
    EXPECT_EQ(funcOf(t), Func::RtdSend);
}

TEST(ForwardRecords, ServersThatCannotWorkAreRefusedWithTheReason)
{
    const struct {
        const char *fields;
        const char *why;
    } cases[] = {
        {R"("port":0)", "port 0 is not 1..65535"},
        {R"("port":65536)", "port 65536 is not 1..65535"},
        {R"("port":"abc")", "port abc is not 1..65535"},
        {R"("port":1883.5)", "port 1883.5 is not 1..65535"},
        {R"("keep_alive":3)", "keep_alive 3 is not 5..65535 seconds"},
        {R"("keep_alive":65536)", "keep_alive 65536 is not 5..65535 seconds"},
        {R"("keep_alive":-1)", "keep_alive -1 is not 5..65535 seconds"},
        {R"("mqtt_version":6)", "mqtt_version 6 is not 3 (3.1), 4 (3.1.1) or 5"},
        {R"("mqtt_version":"3.2")", "mqtt_version 3.2 is not"},
        {R"("host":"")", "no host"},
        {R"("cafile":"ca","certfile":"box.crt")", "certfile and keyfile go together"},
        {R"("certfile":"box.crt","keyfile":"box.key")", "a client certificate needs cafile or capath"},
        {R"("use_authentication":true)", "use_authentication without user_name"},
        {R"("mqtt_version":3,"client_id":"a-client-id-of-24-bytes!")", "client_id longer than the 23 bytes"},
    };
    for (const auto &c : cases) {
        MqttClient::Settings s;
        QString why;
        EXPECT_FALSE(serverFromJson(object(QString(R"({"host":"h",%1})").arg(c.fields)), &s, &why)) << c.fields;
        EXPECT_TRUE(why.startsWith(c.why)) << c.fields << " gave: " << why.toStdString();
    }
}

TEST(ForwardRecords, TopicsNoBrokerTakesAreRefused)
{
    const struct {
        const char *func;
        QString topic;
        QString json;
        const char *problem;  // empty: usable
    } cases[] = {
        {"RTDSend", "plant/a", "{}", ""},
        {"RTDSend", "plant/+/a", "{}", "not a valid publish topic"},
        {"AlarmSend", "plant/#", "{}", "not a valid publish topic"},
        {"RTDSend", "", "{}", "empty topic"},
        {"RTDSend", QString(65536, 'a'), "{}", "topic of 65536 bytes"},
        {"RTDSend", "plant/a", QString(kMaxPayloadBytes + 1, 'x'), "payload template of 131073 bytes"},
        {"WriteRealData", "plant/+/write", "", ""},
        {"WriteRealData", "plant/#/write", "", "not a valid subscription filter"},
        {"Toaster", "plant/a", "{}", "function \"Toaster\" (0) unknown"},
    };
    for (const auto &c : cases) {
        Topic t;
        t.funcTypeName = c.func;
        t.topic = c.topic;
        t.json = c.json;
        const QString problem = topicProblem(t);
        EXPECT_TRUE(*c.problem ? problem.startsWith(c.problem) : problem.isEmpty())
            << c.topic.left(20).toStdString() << ": " << problem.toStdString();
    }
}

// Whatever the values, what comes out is JSON: text is escaped, numbers
// stay numbers, and what is not there is null.
TEST(ForwardPayload, PlaceholdersKeepTheMessageJson)
{
    const QMap<QString, Fill> values{{"n", Fill::numeric("12.5")},   {"z", Fill::numeric("0012")},
                                     {"nan", Fill::numeric("nan")},  {"inf", Fill::numeric("-inf")},
                                     {"t", Fill::string("a\tb\"c\\")}, {"gone", Fill::missing()}};
    const auto resolve = [&](const QString &name, Fill *out) {
        if (!values.contains(name))
            return false;
        *out = values.value(name);
        return true;
    };
    const struct {
        const char *tmpl;
        const char *out;
    } cases[] = {
        {R"({"a":%n%,"b":"%n%","c":%z%})", R"({"a":12.5,"b":"12.5","c":12})"},
        {R"({"a":%nan%,"b":"%nan%","c":%inf%})", R"({"a":null,"b":null,"c":null})"},
        {R"({"a":%t%,"b":"x=%t%;"})", R"({"a":"a\u0009b\"c\\","b":"x=a\u0009b\"c\\;"})"},
        {R"({"a":%gone%,"b":"%gone%","c":"g=%gone%"})", R"({"a":null,"b":null,"c":"g="})"},
        {R"({"p":"50%","q":"%other%","r":"100%%","s":"%n"})", R"({"p":"50%","q":"%other%","r":"100%%","s":"%n"})"},
        {R"({"e":"say \"%n%\"","k%n%":[%n%,%gone%]})", R"({"e":"say \"12.5\"","k12.5":[12.5,null]})"},
    };
    for (const auto &c : cases) {
        const QByteArray out = render(c.tmpl, resolve);
        EXPECT_EQ(out, QByteArray(c.out)) << c.tmpl;
        QJsonParseError error;
        QJsonDocument::fromJson(out, &error);
        EXPECT_EQ(error.error, QJsonParseError::NoError) << out.constData();
    }
}

TEST(ForwardPayload, SystemVariables)
{
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

    const QByteArray alarm = render(alarmTemplate(Topic()), [](const QString &name, Fill *out) {
        return alarmVariable(name, 7, 1, "nan", out);
    });
    EXPECT_TRUE(alarm.startsWith(R"({"alarm":7,"system":"%sn%","alarm_type":"ON","value":null,)")) << alarm.constData();
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
    mgr->OnlineMQTopicSet(R"([{"pass_word":"s3cret"},)");
    EXPECT_TRUE(log.contains(R"(mqtt topic set data json parse err:[{"pass_word":"***"},)"));
    EXPECT_FALSE(mgr->setConfigFile(R"({"operation_type":"rename","data":[{"server_config_id":1}]})"));
    EXPECT_EQ(QString::fromUtf8(lumbra::test::readFile(work.file("iotRunTime/ServerCfg.json"))), "{\"data\":[");
}

TEST(ForwardManager, ABadServerOrTopicLeavesTheOthersRunning)
{
    LogCapture log;
    WorkDir work;
    const int port = lumbra::test::freeTcpPort();
    const QString server = R"({"server_config_id":%1,"host":"127.0.0.1","port":%2,"publish_topic_data":[%3]})";
    const QString topic = R"({"func_type_name":"RTDSend","topic":"%1","json":"{}"})";
    const QStringList servers{server.arg(1).arg(70000).arg(""), server.arg(2).arg(port).arg(topic.arg("a/b")),
                              server.arg(2).arg(port).arg(""),
                              server.arg(3).arg(port).arg(topic.arg("a/#") + "," + topic.arg("a/c"))};
    work.write("iotRunTime/ServerCfg.json", QString(R"({"data":[%1]})").arg(servers.join(',')).toUtf8());
    MqttCliManager *mgr = MqttCliManager::getInstance();
    mgr->init();
    EXPECT_EQ(mgr->clientCount(), 2);
    EXPECT_TRUE(log.contains("server_config_id:1 refused: port 70000 is not 1..65535"));
    EXPECT_TRUE(log.contains("server_config_id:2 refused: the id is taken by an earlier server"));
    EXPECT_TRUE(log.contains(R"(server_config_id:3 publish topic "a/#" refused: not a valid publish topic)"));
    ASSERT_TRUE(mgr->client(2) && mgr->client(3));
    EXPECT_EQ(mgr->client(3)->pubTopics().size(), 1);
    mgr->stop();
}

TEST(ForwardCache, RowsLeaveInOrderAndAFullCacheLosesItsOldest)
{
    LogCapture log;
    WorkDir work;
    const QString path = ForwardCache::fileFor(work.file("cache"), 7);
    EXPECT_TRUE(path.endsWith("cache/server7Mqtt.db"));
    ForwardCache cache(path, 10);
    ASSERT_TRUE(cache.isOpen());
    using Row = ForwardCache::Row;
    ASSERT_TRUE(cache.append({Row{0, "t/1", R"({"q":"it's"})", "a"}, Row{0, "t/2", "{}", "b"}, Row{0, "t/3", "{}", "c"}}));
    const QList<Row> first = cache.after(0, 2);
    ASSERT_EQ(first.size(), 2);
    EXPECT_EQ(first.at(0).payload, R"({"q":"it's"})");
    EXPECT_EQ(first.at(1).topic, "t/2");
    EXPECT_EQ(cache.after(first.at(1).rowid, 10).value(0).topic, "t/3");

    ASSERT_TRUE(cache.remove({first.at(0).rowid}));
    EXPECT_EQ(cache.rows(), 2u);
    // Messages a lost connection took back are older than all cached ones.
    ASSERT_TRUE(cache.prepend({Row{0, "p/1", "{}", ""}, Row{0, "p/2", "{}", ""}}));
    QStringList order;
    for (const Row &r : cache.after(std::numeric_limits<qint64>::min(), 10))
        order << r.topic;
    EXPECT_EQ(order, QStringList({"p/1", "p/2", "t/2", "t/3"}));
    QList<Row> more;
    for (int i = 4; i <= 12; ++i)
        more.append(Row{0, QString("t/%1").arg(i), "{}", ""});
    ASSERT_TRUE(cache.append(more));
    EXPECT_EQ(cache.rows(), 10u);
    EXPECT_EQ(cache.after(std::numeric_limits<qint64>::min(), 1).value(0).topic, "t/3");  // the oldest made room
    EXPECT_TRUE(log.contains("del db count:3 m_dbDataNum:1"));

    QList<qint64> all;
    for (const Row &r : cache.after(std::numeric_limits<qint64>::min(), 100))
        all << r.rowid;
    ASSERT_TRUE(cache.remove(all));
    cache.compactIfEmptied();
    EXPECT_EQ(cache.rows(), 0u);
    EXPECT_LE(QFileInfo(path).size(), 8192);
}

TEST(ForwardCache, TakesOverAnOldFileAndDeletesFromAnEmptyOne)
{
    LogCapture log;
    WorkDir work;
    {
        ForwardCache old(work.file("cache/a_.._bMqtt.db"), 10);
        ASSERT_TRUE(old.append({ForwardCache::Row{0, "t", "{}", ""}}));
    }
    MqttClient::Settings s;
    s.configId = 7;
    s.clientId = "a/../b";
    s.legacyCacheName = fileSafe(s.clientId);
    s.host = "127.0.0.1";
    s.port = lumbra::test::freeTcpPort();
    s.useOfflineCache = true;
    s.cacheDir = work.file("cache");
    MqttClient client(s);
    client.init();
    EXPECT_EQ(client.cachedRows(), 1u);
    EXPECT_FALSE(QFileInfo::exists(work.file("cache/a_.._bMqtt.db")));
    EXPECT_TRUE(client.delCachedb(1));
    EXPECT_TRUE(client.delCachedb(1));
    EXPECT_EQ(client.cachedRows(), 0u);
    EXPECT_LE(QFileInfo(work.file("cache/server7Mqtt.db")).size(), 8192);
    client.destroyClient();
}
