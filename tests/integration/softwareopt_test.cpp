// Software operations in process: a pyftpdlib server holds the package, a
// nanomsg peer plays the agent; the update script and `reboot` are logging fakes.
#include "IotToMqttComm/IotToMqttComm.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "SoftwareOpt/SoftwareOpt.h"
#include "agentpeer.h"
#include "deviceInfo/deviceInfo.h"
#include "fdend.h"
#include "ftpserver.h"
#include "generalFunc/generalFunc.h"
#include "testsupport.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>

#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>

using namespace lumbra::test;

namespace {

const char kSerial[] = "SWOP-1";
const char kUser[] = "box";
const char kPwd[] = "s3cr:et";
const char kAck[] = "/DevSend/SoftwareOperationAck";

struct Package {
    QString name, path, md5;
};

class SoftwareOptTest : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    QTemporaryDir served;
    std::unique_ptr<FtpServer> ftp;
    std::unique_ptr<AgentPeer> agent;
    QByteArray oldPath = qgetenv("PATH");
    Package a = serve("pkg/a.bin", 70000);
    Package b = serve("pkg/b.bin", 1000);

    void SetUp() override
    {
        box.write("/usr/brenta/iot_conf/sn.conf", kSerial);
        deviceInfo::getInstance()->init();
        installFakes(0);
        b.path = "/pkg/b.bin";  // an absolute server path works as well
        ftp = std::make_unique<FtpServer>(served.path(), kUser, kPwd);
        ASSERT_TRUE(ftp->ok()) << ftp->output().toStdString();
        MqttMsgEvent::MqttDealMapInit();
        const QString url = QString("tcp://127.0.0.1:%1").arg(freeTcpPort());
        qputenv("LUMBRA_AGENT_URL", url.toUtf8());
        agent = std::make_unique<AgentPeer>(url);
        ASSERT_TRUE(agent->bound());
        IotToMqttComm::getInstance()->init();
    }

    void TearDown() override
    {
        SoftwareOpt::getInstance()->stop();
        IotToMqttComm::getInstance()->stop(2000);
        qputenv("PATH", oldPath);
    }

    // Both log to calls.log; the script names the md5 of the package it got.
    void installFakes(int scriptExit)
    {
        const QString calls = box.path() + "/calls.log";
        writeScript("/usr/brenta/shell/universal.sh", QString("echo install $(md5sum < '%1/tmp/universal.zip' | "
                                                              "cut -d' ' -f1) >> '%2'\nexit %3\n")
                                                          .arg(box.path(), calls)
                                                          .arg(scriptExit));
        writeScript("/bin/reboot", QString("echo reboot >> '%1'\n").arg(calls));
        QDir().mkpath(box.path() + "/tmp");
        qputenv("PATH", (box.path() + "/bin:").toUtf8() + oldPath);
        char found[512];
        unitTool::execute_command("command -v reboot", found, sizeof found);
        ASSERT_EQ((box.path() + "/bin/reboot").toStdString(), QByteArray(found).trimmed().toStdString());
    }

    void writeScript(const QString &path, const QString &body)
    {
        box.write(path, ("#!/bin/sh\n" + body).toUtf8());
        QFile::setPermissions(box.path() + path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    Package serve(const QString &path, int size)
    {
        QByteArray content(size, '\0');
        for (char &c : content)
            c = static_cast<char>(QRandomGenerator::global()->bounded(256));
        writeFile(served.path() + "/" + path, content);
        return {path.section('/', -1), path, QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex()};
    }

    QJsonObject request(const char *op, const QList<Package> &files) const
    {
        QJsonArray list;
        for (const Package &p : files)
            list.append(QJsonObject{{"fileName", p.name}, {"filePath", p.path}, {"fileCheckCode", p.md5}});
        return {{"ip", "127.0.0.1"}, {"port", QString::number(ftp->port())},
                {"devSoftwareType", "iot"}, {"devOperationType", op}, {"username", kUser}, {"pwd", kPwd},
                {"softwareVersionResponse", QJsonObject{{"softwareVersion", "3.1.0"}, {"fileList", list}}}};
    }

    void send(const QJsonObject &req)
    {
        const QJsonObject envelope{{"topic", "/DevRecv/SoftwareOperation"},
                                   {"msg", QString(QJsonDocument(req).toJson(QJsonDocument::Compact))}};
        ASSERT_TRUE(agent->send(QJsonDocument(envelope).toJson(QJsonDocument::Compact)));
    }

    // The states reported up to the final one; the worker has ended on return.
    std::string states(const char *op)
    {
        QStringList out;
        while (out.isEmpty() || !(out.last().endsWith("_SUCCESS") || out.last().endsWith("_FAIL"))) {
            const AgentUpload up = agent->receiveTopic(kAck, 10000);
            if (!up.ok())
                break;
            EXPECT_EQ(kSerial, up.msg.value("sn_code").toString().toStdString());
            EXPECT_EQ("iot", up.msg.value("devSoftwareType").toString().toStdString());
            EXPECT_EQ(op, up.msg.value("devOperationType").toString().toStdString());
            out << up.msg.value("state").toString();
        }
        EXPECT_TRUE(eventually([] { return !SoftwareOpt::getInstance()->isRunning(); }));
        return out.join(' ').toStdString();
    }

    std::string downloaded() const
    {
        return QDir(work.file("iotRunTime/download")).entryList(QDir::Files).join(' ').toStdString();
    }
    std::string calls() const { return readFile(box.path() + "/calls.log").toStdString(); }
};

TEST_F(SoftwareOptTest, DownloadThenUpdateInstallsEachFileInOrderAndReboots)
{
    send(request("DOWNLOAD", {a, b}));
    EXPECT_EQ("DOWNLOADING DOWNLOAD_SUCCESS", states("DOWNLOAD"));
    EXPECT_EQ(readFile(served.path() + "/pkg/a.bin"), readFile(work.file("iotRunTime/download/a.bin")));
    EXPECT_EQ("a.bin b.bin", downloaded());

    send(request("UPDATE", {a, b}));
    EXPECT_EQ("UPDATEING UPDATE_SUCCESS", states("UPDATE"));
    EXPECT_EQ(("install " + a.md5 + "\ninstall " + b.md5 + "\nreboot\n").toStdString(), calls());
    EXPECT_EQ("", downloaded());
}

TEST_F(SoftwareOptTest, FailedDownloadLeavesNothingToInstall)
{
    const char *tried = "DOWNLOADING DOWNLOAD_FAIL", *refused = "DOWNLOAD_FAIL";
    const struct {
        Package second;
        QJsonObject patch;  // over the request
        const char *states, *logged;
    } cases[] = {
        {{"b.bin", b.path, a.md5}, {}, tried, "fileCheckCode:"},
        {{"b.bin", "pkg/none.bin", b.md5}, {}, tried, "ftp download err:78"},
        {b, {{"pwd", "wrong"}}, tried, "ftp download err:67"},
        {b, {{"port", QString::number(freeTcpPort())}}, tried, "ftp download err:7\n"},
        {{"sub/b.bin", b.path, b.md5}, {}, refused, "fileName refused:sub/b.bin"},
        {{"../b.bin", b.path, b.md5}, {}, refused, "fileName refused:../b.bin"},
        {{"b;reboot", b.path, b.md5}, {}, refused, "fileName refused:b;reboot"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.logged);
        QJsonObject req = request("DOWNLOAD", {a, c.second});
        for (auto it = c.patch.begin(); it != c.patch.end(); ++it)
            req[it.key()] = it.value();
        send(req);
        EXPECT_EQ(c.states, states("DOWNLOAD"));
        EXPECT_TRUE(log.contains(c.logged));
        EXPECT_EQ("", downloaded());
    }
}

// A full disk as curl sees it: writes of the local file come up short.
TEST_F(SoftwareOptTest, WriteFailureFailsTheDownload)
{
    const Package big = serve("big.bin", 300000);
    signal(SIGXFSZ, SIG_IGN);
    rlimit old{}, small{};
    getrlimit(RLIMIT_FSIZE, &old);
    small = {100000, old.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
    send(request("DOWNLOAD", {big}));
    const std::string got = states("DOWNLOAD");
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ("DOWNLOADING DOWNLOAD_FAIL", got);
    EXPECT_TRUE(log.contains("ftp download err:23"));
    EXPECT_EQ("", downloaded());
}

TEST_F(SoftwareOptTest, UpdateWithoutCompletePackageInstallsNothing)
{
    const struct {
        const char *name;
        QList<Package> files;
        const char *present;  // below the working directory
        bool asServed;        // with the served bytes of the first file, else other bytes
        int scriptExit;
        const char *logged;
    } cases[] = {
        {"nothing downloaded", {a}, "", false, 0, "download/a.bin No such file"},
        {"no file listed", {}, "", false, 0, "fileList empty"},
        {"second file missing", {a, b}, "iotRunTime/download/a.bin", true, 0, "download/b.bin No such file"},
        {"name leaving the directory", {{"../a.bin", "", ""}}, "iotRunTime/a.bin", false, 0, "refused:../a.bin"},
        {"name with slash", {{"x/a.bin", "", ""}}, "iotRunTime/download/x/a.bin", false, 0, "refused:x/a.bin"},
        {"file of an earlier download", {a}, "iotRunTime/download/a.bin", false, 0, "fileCheckCode:"},
        {"script fails", {a}, "iotRunTime/download/a.bin", true, 3, "update script exit:3"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        installFakes(c.scriptExit);
        QDir(work.file("iotRunTime")).removeRecursively();
        if (*c.present)
            work.write(c.present, c.asServed ? readFile(served.path() + "/" + a.path) : QByteArray("package"));
        send(request("UPDATE", c.files));
        EXPECT_EQ("UPDATEING UPDATE_FAIL", states("UPDATE"));
        EXPECT_TRUE(log.contains(c.logged));
        EXPECT_EQ(c.scriptExit != 0, !calls().empty());
        EXPECT_EQ(std::string::npos, calls().find("reboot"));
        QFile::remove(box.path() + "/calls.log");
    }
}

TEST_F(SoftwareOptTest, RequestWhileOneRunsChangesNothing)
{
    const Package slow = serve("slow.bin", 150000);
    FtpServer throttled(served.path(), kUser, kPwd, 60000);
    ASSERT_TRUE(throttled.ok());
    QJsonObject req = request("DOWNLOAD", {slow});
    req["port"] = QString::number(throttled.port());
    send(req);
    ASSERT_TRUE(agent->receiveTopic(kAck, 5000).ok());
    send(request("UPDATE", {slow}));
    send(request("DOWNLOAD", {a}));
    EXPECT_TRUE(eventually([&] { return log.count("isRunning") == 2; }));
    EXPECT_EQ("DOWNLOAD_SUCCESS", states("DOWNLOAD"));
    EXPECT_FALSE(agent->receiveTopic(kAck, 1000).ok());
    EXPECT_EQ("slow.bin", downloaded());
    EXPECT_EQ("", calls());
}

TEST_F(SoftwareOptTest, MalformedRequestIsLoggedAndStartsNothing)
{
    const char *const cases[][2] = {{"", "parse fail:"},
                                    {"not json", "parse fail:not json"},
                                    {"[1,2]", "parse fail:[1,2]"},
                                    {R"({"devOperationType":"FORMAT","pwd":"x"})", "devOperationType unknown:FORMAT"}};
    for (const auto &c : cases) {
        EXPECT_EQ(-1, SoftwareOpt::getInstance()->execOpt(c[0])) << c[0];
        EXPECT_TRUE(log.contains(c[1])) << c[0];
        EXPECT_FALSE(SoftwareOpt::getInstance()->isRunning());
    }
    EXPECT_FALSE(log.contains("\"pwd\""));
}

}  // namespace
