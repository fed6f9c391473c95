// What the platform's MQTT side takes and what it refuses: outside input
// may be malformed or hostile, and must be dropped with a count, never
// queued, never turned into a path outside the configuration folder.
#include "configservice.h"
#include "ingest.h"
#include "options.h"
#include "testsupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <zlib.h>

using namespace platform;
using namespace lumbra::test;

namespace {

QByteArray zlibOf(const QByteArray &text)
{
    uLongf n = compressBound(static_cast<uLong>(text.size()));
    QByteArray out(static_cast<int>(n), '\0');
    compress2(reinterpret_cast<Bytef *>(out.data()), &n, reinterpret_cast<const Bytef *>(text.constData()),
              static_cast<uLong>(text.size()), 6);
    out.resize(static_cast<int>(n));
    return out;
}

QStringList filesBelow(const QString &dir)
{
    QStringList out;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        out << it.next();
    return out;
}

class IngestTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    IngestQueue queue{100, 1 << 24};
    ConfigService config{dir.path() + "/config"};
    std::vector<Outgoing> sent;
    Ingest ingest{queue, config, [this](const Outgoing &o) { sent.push_back(o); }, 1 << 20};

    quint64 totalFaults() const
    {
        quint64 n = 0;
        for (int f = 0; f < Ingest::Faults; ++f)
            n += ingest.faults(Ingest::Fault(f));
        return n;
    }
};

struct Refused {
    const char *name;
    QByteArray topic;
    QByteArray payload;
    Ingest::Fault fault;
};

TEST_F(IngestTest, MalformedAndHostileInputIsDroppedAndCounted)
{
    const QByteArray bomb = zlibOf(QByteArray(8 << 20, '0'));  // 8 MB of zeros in a few kB
    const QByteArray rtd = R"({"sn_code":"SN1","data":[{"code":1,"data":"1"}]})";
    const Refused cases[] = {
        {"oversized", "/SN1_3.0.0/DevSend/RTD", QByteArray((1 << 20) + 1, ' '), Ingest::Oversized},
        {"serial climbing out of the folder", "/.._3.0.0/DevSend/RTD", rtd, Ingest::BadTopic},
        {"serial with a hidden name", "/.ssh_3.0.0/DevSend/RTD", rtd, Ingest::BadTopic},
        {"serial with odd characters", "/a%2F..%2Fb_3.0.0/DevSend/RTD", rtd, Ingest::BadTopic},
        {"empty serial", "/_3.0.0/DevSend/RTD", rtd, Ingest::BadTopic},
        {"no version level", "/SN1/DevSend/RTD", rtd, Ingest::BadTopic},
        {"unknown upload", "/SN1_3.0.0/DevSend/Bogus", rtd, Ingest::UnknownTopic},
        {"compressed that is no zlib", "/SN1_3.0.0/DevSend/RTDCompress", "not zlib at all", Ingest::BadCompression},
        {"truncated zlib", "/SN1_3.0.0/DevSend/RTDCompress", zlibOf(rtd).left(10), Ingest::BadCompression},
        {"zlib bomb", "/SN1_3.0.0/DevSend/Sequential/HisDataCompress", bomb, Ingest::BadCompression},
        {"not JSON", "/SN1_3.0.0/DevSend/RTD", "{\"data\":[", Ingest::Malformed},
        {"not an object", "/SN1_3.0.0/DevSend/RTD", "[1,2]", Ingest::Malformed},
        {"points without codes", "/SN1_3.0.0/DevSend/RTD", R"({"data":[{"data":"1"}]})", Ingest::Malformed},
        {"history without a group", "/SN1_3.0.0/DevSend/Sequential/HisData", R"({"data":[]})", Ingest::Malformed},
        {"history row without a time", "/SN1_3.0.0/DevSend/Sequential/HisData",
         R"({"group_id":1,"data":[{"data_text":"1","data_time":"soon"}]})", Ingest::Malformed},
        {"alarm without reqId", "/SN1_3.0.0/DevSend/Alarm", R"({"alarm_index":1,"alarm_time":"5"})", Ingest::Malformed},
        {"configuration request that is no object", "/SN1_3.0.0/DevSend/RTDConfigReq", "[]", Ingest::Malformed},
    };
    for (const Refused &c : cases) {
        SCOPED_TRACE(c.name);
        const quint64 before = ingest.faults(c.fault);
        ingest.onMessage(c.topic, c.payload);
        EXPECT_EQ(ingest.faults(c.fault), before + 1);
        EXPECT_EQ(queue.size(), 0u);
    }
    EXPECT_EQ(totalFaults(), std::size(cases));
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(filesBelow(dir.path()).isEmpty());
}

TEST_F(IngestTest, CompressedUploadsAreInflated)
{
    ingest.onMessage("/SN-1.a_b_3.0.0/DevSend/RTDCompress", zlibOf(R"({"data":[{"code":7,"data":12.5}]})"));
    std::vector<Inbound> got = queue.take(10, 0);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].serial, "SN-1.a_b");  // the version follows the last '_'
    EXPECT_EQ(got[0].version, "3.0.0");
    ASSERT_EQ(got[0].points.size(), 1);
    EXPECT_EQ(got[0].points[0].code, 7);
    EXPECT_EQ(got[0].points[0].value, "12.5");
    EXPECT_EQ(totalFaults(), 0u);
}

TEST_F(IngestTest, ConfigurationRequestsAreAnsweredFromTheFolder)
{
    const QString folder = dir.path() + "/config/SN1";
    writeFile(folder + "/RealTimeConfiguration.json", R"({"last_updata_time":"v7","data":[{"data_code":1}]})");
    writeFile(folder + "/HistoryConfiguration.json", R"({"data":[]})");
    writeFile(folder + "/AlarmConfiguration.json", "{broken");
    const qint64 historyStamp = QFileInfo(folder + "/HistoryConfiguration.json").lastModified().toSecsSinceEpoch();

    struct Case {
        const char *name;
        QByteArray topic;
        QString held;
        QByteArray replyTopic;
        QString replyStamp;  // "1": nothing newer
    };
    const Case cases[] = {
        {"a box without a copy gets the file", "/RTDConfigReq", "-1", "/DevRecv/RTDConfigAck", "v7"},
        {"the same stamp: nothing newer", "/RTDConfigReq", "v7", "/DevRecv/RTDConfigAck", "1"},
        {"an older stamp gets the file", "/RTDConfigReq", "v6", "/DevRecv/RTDConfigAck", "v7"},
        {"no stamp in the file: its time", "/HisDataConfigReq", "-1", "/DevRecv/HisDataConfigAck",
         QString::number(historyStamp)},
        {"a broken file: the box keeps its copy", "/AlarmConfigReq", "-1", "/DevRecv/AlarmConfigAck", "1"},
        {"no file: the box moves on", "/ScriptConfigReq", "-1", "/DevRecv/ScriptConfigAck", "1"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        sent.clear();
        ingest.onMessage("/SN1_3.0.0/DevSend" + c.topic,
                         QString(R"({"sn_code":"SN1","last_updata_time":"%1"})").arg(c.held).toUtf8());
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].topic, "/SN1_3.0.0" + c.replyTopic);
        const QJsonObject reply = QJsonDocument::fromJson(sent[0].payload).object();
        EXPECT_EQ(reply.value("last_updata_time").toString(), c.replyStamp);
        EXPECT_TRUE(reply.value("data").isArray());
    }
    // A box with no folder at all is answered too, so that it goes on.
    sent.clear();
    ingest.onMessage("/OTHER_3.0.0/DevSend/DevConnInfoReq", R"({"last_updata_time":"-1"})");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].payload, R"({"data":[],"last_updata_time":"1"})");
}

TEST(PlatformConfigPaths, NoSerialNamesAPathOutsideTheFolder)
{
    QTemporaryDir dir;
    writeFile(dir.path() + "/secret/RealTimeConfiguration.json", R"({"data":[{"data_code":666}]})");
    ConfigService config(dir.path() + "/config");
    for (const char *serial : {"../secret", "..", "/etc", "a/../../secret", "", "x\ny"}) {
        Outgoing out;
        EXPECT_FALSE(config.answer(serial, "/x_1", 1, R"({"last_updata_time":"-1"})", &out)) << serial;
        EXPECT_TRUE(config.file(serial, 1).isEmpty()) << serial;
    }
}

struct OptionCase {
    QStringList args;
    bool ok;
    QString check;  // "field=value" of the parsed options when ok
};

TEST(PlatformOptions, CommandLine)
{
    const OptionCase cases[] = {
        {{}, true, "http=127.0.0.1:8080"},
        {{"--broker", "10.0.0.5:8883", "--http", "[::1]:9000"}, true, "http=::1:9000"},
        {{"--http=localhost:81"}, true, "http=localhost:81"},
        {{"--http", "0.0.0.0:8080"}, false, ""},  // beyond loopback without a token
        {{"--http", "0.0.0.0:8080", "--token", "t"}, true, "http=0.0.0.0:8080"},
        {{"--share", "g1"}, true, "subscription=$share/g1//+/DevSend/#"},
        {{"--share", "a/b"}, false, ""},
        {{"--broker", "nohost"}, false, ""},
        {{"--broker", "h:70000"}, false, ""},
        {{"--retention-days", "-1"}, false, ""},
        {{"--db"}, false, ""},
        {{"--nonsense"}, false, ""},
        {{"--password-file", "/nonexistent/file"}, false, ""},
    };
    for (const OptionCase &c : cases) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        QList<QByteArray> bytes{"lumbra-platform"};
        for (const QString &a : c.args)
            bytes << a.toUtf8();
        std::vector<char *> argv;
        for (QByteArray &b : bytes)
            argv.push_back(b.data());
        PlatformOptions o;
        QString error;
        const Parsed p = parseOptions(static_cast<int>(argv.size()), argv.data(), &o, &error);
        EXPECT_EQ(p == Parsed::Run, c.ok) << error.toStdString();
        if (!c.ok)
            continue;
        const QString http = QString("http=%1:%2").arg(o.httpHost).arg(o.httpPort);
        EXPECT_TRUE(c.check == http || c.check == "subscription=" + QString(o.subscription())) << http.toStdString();
    }
}

}  // namespace
