// The link manager over real UDP links, the scripted driver behind them and
// the test playing the device.
#include "device_comm/communication.h"
#include "fdend.h"
#include "testsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QRegularExpression>
#include <QThread>

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

using namespace lumbra::test;

namespace {

enum { CNT_DEALT, CNT_MERGED = 4, CNT_MERGED_STATIONS = 11, CNT_CANCELLED = 12, CNT_LAST_KIND = 13 };

// The device: answers every datagram with what answer() gives (nothing for
// an empty answer) and keeps what it was sent.
class UdpDevice {
public:
    using Answer = std::function<QByteArray(const QByteArray &request)>;
    explicit UdpDevice(Answer answer)
        : m_thread([this, answer] {
              while (!m_stop) {
                  int from = 0;
                  const QByteArray request = m_peer.receive(20, &from);
                  if (request.isEmpty())
                      continue;
                  {
                      QMutexLocker lock(&m_mutex);
                      m_received += request + ' ';
                  }
                  const QByteArray reply = answer(request);
                  if (!reply.isEmpty())
                      m_peer.sendTo(from, reply);
              }
          })
    {
    }
    ~UdpDevice()
    {
        m_stop = true;
        m_thread.join();
    }
    int port() const { return m_peer.port(); }
    QByteArray received()
    {
        QMutexLocker lock(&m_mutex);
        return m_received;
    }

private:
    UdpPeer m_peer;
    std::atomic<bool> m_stop{false};
    QMutex m_mutex;
    QByteArray m_received;
    std::thread m_thread;
};

class LinkManagerTest : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    communication *comm = communication::getInstance();

    // One object of the link file: a UDP master link to port; more adds or
    // replaces keys.
    static QByteArray link(const QString &name, int port, const QString &property, const QJsonObject &more = {})
    {
        QJsonObject o{{"link_name", name},         {"link_type", "Ethernet"}, {"link_driver", "scripted"},
                      {"hmi_ip", "127.0.0.1"},     {"hmi_port", QString::number(port)},
                      {"plc_id", "1"},             {"comm_time", 5},          {"timeout1", 300},
                      {"driver_property", property}};
        for (auto it = more.begin(); it != more.end(); ++it)
            o.insert(it.key(), it.value());
        return QJsonDocument(o).toJson(QJsonDocument::Compact);
    }

    void startLinks(const QList<QByteArray> &links)
    {
        work.write("iotRunTime/driver/libscripted.so", readFile(SCRIPTED_DRIVER));
        work.write("iotRunTime/driver/libscripted_abi1.so", readFile(SCRIPTED_DRIVER_ABI1));
        QByteArray all;
        for (const QByteArray &l : links)
            all += (all.isEmpty() ? "" : ",") + l;
        work.write("iotRunTime/LinkConfiguration.json", "{\"data\":[" + all + "]}");
        comm->initLinks();
    }

    void TearDown() override { comm->stopLinks(); }

    int counter(const QString &linkName, int which)
    {
        int v = -1;
        comm->getCommValue(linkName, "CNT", which, 0, 2, reinterpret_cast<uchar *>(&v), 4);
        return v;
    }

    int write(const QString &linkName, const QString &reg, int value, QString *why = nullptr, int station = 1)
    {
        return comm->setCommValue(linkName, reg, 5, station, 2, reinterpret_cast<uchar *>(&value), 4,
                                  LUMBRA_KIND_32BIT, why);
    }
};

// Replies to polls ("REQ...") with a byte, to writes ("WR...") with writeReply.
UdpDevice::Answer plcAnswering(const std::atomic<const char *> &writeReply)
{
    return [&writeReply](const QByteArray &request) {
        return request.startsWith("WR") ? QByteArray(writeReply.load()) : QByteArray("R");
    };
}

}  // namespace

TEST_F(LinkManagerTest, ReadsReportOnlyWhatTheDeviceSentAsGood)
{
    const int nowhere = freeTcpPort();
    startLinks({link("GOOD", nowhere, "quality=0"), link("DOWN", nowhere, "quality=2"),
                link("NEVER", nowhere, "quality=1"), link("OLD", nowhere, "", {{"link_driver", "scripted_abi1"}})});
    struct Case {
        const char *link;
        const char *reg;
        int rc;
        int value;
        int quality;
    } cases[] = {
        {"GOOD", "Q", 1, 1234, LUMBRA_QUALITY_GOOD},
        {"DOWN", "Q", 0, 1234, LUMBRA_QUALITY_NO_REPLY},  // the last good value, but not as current
        {"NEVER", "Q", 0, 0, LUMBRA_QUALITY_NOT_READ},
        {"OLD", "G", 1, 1234, LUMBRA_QUALITY_GOOD},       // a driver before ABI 2: 1 means good
        {"OLD", "Q", 0, 0, LUMBRA_QUALITY_NOT_READ},      // and 0 not read
        {"GOOD", "nope", -1, 0, LUMBRA_QUALITY_NOT_READ},
        {"unknown link", "Q", -1, 0, LUMBRA_QUALITY_NOT_READ},
    };
    for (const char *name : {"GOOD", "DOWN", "NEVER", "OLD"})
        ASSERT_EQ(write(name, "G", 1234), 1) << name;  // kept at once, or queued by an old driver
    for (const Case &c : cases) {
        int value = 0, quality = -1;
        EXPECT_EQ(comm->getCommValue(c.link, c.reg, 0, 1, 2, reinterpret_cast<uchar *>(&value), 4,
                                     LUMBRA_KIND_32BIT, &quality),
                  c.rc)
            << c.link << " " << c.reg;
        EXPECT_EQ(value, c.value) << c.link << " " << c.reg;
        EXPECT_EQ(quality, c.quality) << c.link << " " << c.reg;
    }
    EXPECT_EQ(counter("GOOD", CNT_LAST_KIND), LUMBRA_KIND_32BIT);  // the kind reaches the driver
}

// A UDP port reports silence as a failed receive: the driver must still hear
// of every exchange that got no reply, or it would never count a failure.
TEST_F(LinkManagerTest, ExchangesLostToAFailingPortReachTheDriverAsNoReply)
{
    startLinks({link("MUTE", freeTcpPort(), "")});
    EXPECT_TRUE(eventually([&] { return counter("MUTE", CNT_DEALT) >= 2; }, 5000));
}

TEST_F(LinkManagerTest, WritesAreConfirmedRefusedOrGivenUpAfterTheReplyTimeOut)
{
    std::atomic<const char *> writeReply{"OK"};
    UdpDevice plc(plcAnswering(writeReply));
    startLinks({link("PLC1", plc.port(), "results=1")});
    struct Case {
        const char *reg;
        const char *reply;  // "": the device stays silent
        int rc;
        const char *why;
        int warnings;  // WARN lines so far
    } cases[] = {
        {"W", "OK", 1, "", 0},
        {"B", "", 1, "", 0},  // a broadcast is done once it went out
        {"W", "EX", -1, "exception 2 (illegal data address)", 1},
        {"W", "EX", -1, "exception 2 (illegal data address)", 1},  // the same fault again: held back
        {"W", "", -1, "no reply", 1},
        {"nope", "", -1, "refused by the driver", 2},
    };
    for (const Case &c : cases) {
        writeReply = c.reply;
        QString why;
        QElapsedTimer clock;
        clock.start();
        EXPECT_EQ(write("PLC1", c.reg, 7, &why), c.rc) << c.reg << " " << c.reply;
        EXPECT_LT(clock.elapsed(), 300 + 150) << c.reg << " " << c.reply;
        EXPECT_EQ(why.left(qstrlen(c.why)), c.why);
        EXPECT_EQ(log.count("WARN"), c.warnings) << log.text().toStdString();
    }
    EXPECT_TRUE(log.contains("link:PLC1 write of W 5 station 1 failed: exception 2 (illegal data address)"));
    EXPECT_TRUE(plc.received().contains("BC"));
    EXPECT_GE(counter("PLC1", CNT_CANCELLED), 1);
}

TEST_F(LinkManagerTest, WriteToALinkStuckInItsFailurePauseReturnsWithinOneReplyTimeOut)
{
    std::atomic<const char *> writeReply{"OK"};
    UdpDevice plc(plcAnswering(writeReply));
    // Every exchange fails: the link thread resets and rests 1 s holding its port.
    startLinks({link("PLC1", plc.port(), "results=9", {{"timeout1", 100}})});
    ASSERT_TRUE(eventually([&] { return counter("PLC1", CNT_DEALT) >= 1; }));
    QThread::msleep(100);  // well inside the pause
    QString why;
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(write("PLC1", "W", 7, &why), -1);
    EXPECT_LT(clock.elapsed(), 100 + 150);
    EXPECT_EQ(why, "no reply within 100 ms");
    EXPECT_EQ(counter("PLC1", CNT_CANCELLED), 1);
    // Given up means given up: it does not go out after the pause either.
    EXPECT_TRUE(eventually([&] { return counter("PLC1", CNT_DEALT) >= 2; }));
    EXPECT_FALSE(plc.received().contains("WR"));
}

TEST_F(LinkManagerTest, ShieldedStationsAreNotPolledAndReadAsNoReply)
{
    startLinks({link("PLC1", freeTcpPort(), "quality=0", {{"station_no_comm", "2, x"}})});
    QList<ExternalAddr> addrs;
    for (int station : {1, 2, 3})
        addrs << ExternalAddrTable::makeAddr("PLC1", "4X", "1", station, 1, 0);
    comm->setExternalAddrInfo(addrs, EXTERNAL_ADDR_REALDATA);
    comm->enableExternalAddrInfo(true);
    EXPECT_EQ(counter("PLC1", CNT_MERGED), 2);
    EXPECT_EQ(counter("PLC1", CNT_MERGED_STATIONS), 1 << 1 | 1 << 3);
    EXPECT_TRUE(log.contains("station_no_comm \"x\" is no station"));

    int value = 0, quality = -1;
    EXPECT_EQ(comm->getCommValue("PLC1", "Q", 0, 2, 2, reinterpret_cast<uchar *>(&value), 4, LUMBRA_KIND_32BIT,
                                 &quality),
              0);
    EXPECT_EQ(quality, LUMBRA_QUALITY_NO_REPLY);
    EXPECT_EQ(comm->getCommValue("PLC1", "Q", 0, 1, 2, reinterpret_cast<uchar *>(&value), 4, LUMBRA_KIND_32BIT,
                                 &quality),
              1);
    QString why;
    EXPECT_EQ(write("PLC1", "G", 1, &why, 2), -1);
    EXPECT_EQ(why, "station shielded");

    ASSERT_EQ(comm->spendStation("PLC1", 3), 1);
    EXPECT_EQ(counter("PLC1", CNT_MERGED_STATIONS), 1 << 1);
    ASSERT_EQ(comm->startStation("PLC1", 2), 1);
    EXPECT_EQ(counter("PLC1", CNT_MERGED_STATIONS), 1 << 1 | 1 << 2);
}

TEST_F(LinkManagerTest, LinkNamesLongerThanAKeyCanHoldWork)
{
    const QString longA = QString(100, 'A') + "1", longB = QString(100, 'A') + "2", longC = QString(80, 'C');
    const int nowhere = freeTcpPort();
    startLinks({link(longA, nowhere, ""), link(longB, nowhere, ""), link(longC, nowhere, "log=hello")});
    comm->enableExternalAddrInfo(true);
    comm->setExternalAddrInfo({ExternalAddrTable::makeAddr(longA, "4X", "1", 1, 1, 0),
                               ExternalAddrTable::makeAddr(longB, "4X", "1", 1, 1, 0),
                               ExternalAddrTable::makeAddr(longB, "4X", "2", 1, 1, 0)},
                              EXTERNAL_ADDR_REALDATA);
    // Services that still hand over KEY_ADDRESS: a cut name that fits one
    // link is that link's; one that fits two is nobody's.
    comm->setExternalAddrInfo({ExternalAddrTable::makeKey(longC, "4X", "1", 1, 1, 3),
                               ExternalAddrTable::makeKey(longA, "4X", "9", 1, 1, 3)},
                              EXTERNAL_ADDR_MACRO);
    EXPECT_EQ(counter(longA, CNT_MERGED), 1);
    EXPECT_EQ(counter(longB, CNT_MERGED), 2);
    EXPECT_EQ(counter(longC, CNT_MERGED), 1);

    ASSERT_EQ(write(longA, "G", 11), 1);
    ASSERT_EQ(write(longB, "G", 22), 1);
    int a = 0, b = 0;
    EXPECT_EQ(comm->getCommValue(longA, "G", 0, 1, 2, reinterpret_cast<uchar *>(&a), 4), 1);
    EXPECT_EQ(comm->getCommValue(longB, "G", 0, 1, 2, reinterpret_cast<uchar *>(&b), 4), 1);
    EXPECT_EQ(a, 11);
    EXPECT_EQ(b, 22);
    // The driver's own line, at the level it gave, under the link's whole name.
    EXPECT_TRUE(QRegularExpression("(^|\\n)WARN [^\\n]*link:" + longC + " hello").match(log.text()).hasMatch());
    EXPECT_EQ(comm->close_freePort(0), -1);  // a configured link is no free one
}

namespace {

int entries(const char *dir)
{
    return static_cast<int>(QDir(dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size());
}

}  // namespace

TEST_F(LinkManagerTest, FreeLinksGiveBackTheirThreadAndDescriptorWhenClosed)
{
    TcpListener server;
    UdpPeer udpPeer;
    auto cycle = [&](int i) {
        LinkValue lv;
        const bool tcp = i % 2 == 0;
        lv.linkType = tcp ? "Ethernet/TCP" : "Ethernet/UDP";
        lv.hmi_ip = "127.0.0.1";
        lv.hmi_port = static_cast<uint16_t>(tcp ? server.port() : udpPeer.port());
        lv.timeout1 = 1000;
        const int id = comm->create_freePort(&lv);
        FdEnd peer = tcp ? server.accept(2000) : FdEnd(-1);
        if (tcp && !peer.ok())
            return false;
        if (comm->lLinkSendFromID("x", 1, id) != 1 || (tcp ? peer.read(1, 2000) : udpPeer.receive(2000)) != "x")
            return false;
        return comm->close_freePort(id) == 1 && (!tcp || peer.read(1, 2000).isEmpty());
    };
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(cycle(i));
    const int threads = entries("/proc/self/task"), fds = entries("/proc/self/fd");
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(cycle(i)) << i;
    EXPECT_EQ(entries("/proc/self/task"), threads);
    EXPECT_EQ(entries("/proc/self/fd"), fds);
    EXPECT_EQ(log.count("closed"), 1010);
    EXPECT_EQ(comm->close_freePort(999), -1);
}
