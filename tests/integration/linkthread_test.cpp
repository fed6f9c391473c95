// A link thread on a real pty line, steered by the scripted test driver.
#include "device_comm/communication.h"
#include "device_comm/src/ulinkporttcpserver.h"
#include "device_comm/src/ulinkthread.h"
#include "fdend.h"
#include "linkprobe.h"
#include "modbusslave.h"
#include "ptypair.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

using namespace lumbra::test;

namespace {

const int kLinkId = 0;

enum { CNT_DEALT, CNT_DISCONNECT, CNT_FRAMES, CNT_LAST_LEN, CNT_MERGED, CNT_CODE, CNT_CODE_CALLS, CNT_MPI_INIT,
       CNT_MPI_DEAL, CNT_EMPTY_CALLS, CNT_NEED_MORE };

class LinkThreadTest : public ::testing::Test {
protected:
    LogCapture log;
    BoxRoot box;
    std::unique_ptr<PtyPair> line;
    std::unique_ptr<FdEnd> device;
    std::unique_ptr<ULinkThread> thread;

    // COM1 maps to ttyO1 on this (non-R16) kernel; its status bit is LB 60104.
    LinkValue link(const QString &property, int masterOrSlave = 0)
    {
        LinkValue l;
        l.id = kLinkId;
        l.linkName = "PLC1";
        l.linkType = "COM1";
        l.link_driver = "scripted";
        l.master_or_slave = masterOrSlave;
        l.baudrate = 115200;
        l.data_bit = 8;
        l.stop_bit = 1;
        l.check_bit = "NONE";
        l.comm_time = 5;
        l.timeout1 = 80;
        l.driver_property = property;
        return l;
    }

    // The line with the device's end, and the driver of link 0 staged.
    void openLine()
    {
        stageDriver();
        line = std::make_unique<PtyPair>(box.path() + "/dev/ttyO1", box.path() + "/peer");
        ASSERT_TRUE(line->ok()) << line->log().toStdString();
        device = std::make_unique<FdEnd>(line->linkB());
        ASSERT_TRUE(device->ok());
    }

    // Link ids other than 0 load a copy of their own, with fresh driver state.
    void stageDriver(const QString &name = "scripted", int linkId = kLinkId)
    {
        writeFile(box.path() + QString("/usr/brenta/project/driver/lib%1_%2.so").arg(name).arg(linkId),
                  readFile(SCRIPTED_DRIVER));
    }

    int start(const LinkValue &l)
    {
        thread = std::make_unique<ULinkThread>(l.id);
        return thread->InitLink(l, &communication::_linkValueChangedCB, &communication::_linkErrorCallBack);
    }

    int counter(int which)
    {
        int v = -1;
        thread->GetValue(0, "CNT", which, 2, LUMBRA_KIND_RAW, reinterpret_cast<uchar *>(&v), 4, nullptr);
        return v;
    }

    // The last buffer the driver was handed.
    QByteArray lastBuffer()
    {
        QByteArray b(64, '\0');
        thread->GetValue(0, "BUF", 0, 0, LUMBRA_KIND_RAW, reinterpret_cast<uchar *>(b.data()), b.size(), nullptr);
        return b.left(counter(CNT_LAST_LEN));
    }

    void TearDown() override
    {
        thread.reset();
    }
};

// Plays the device on the far end of the line: answers every frame the link
// sends with the pieces answer() gives, a pause between pieces.
class Responder {
public:
    using Answer = std::function<QList<QByteArray>(const QByteArray &frame)>;
    Responder(FdEnd &end, Answer answer, int pieceGapMs = 60)
        : m_thread([this, &end, answer, pieceGapMs] {
              while (!m_stop) {
                  const QByteArray frame = end.read(64, 20);
                  if (frame.isEmpty())
                      continue;
                  const QList<QByteArray> pieces = answer(frame);
                  for (int i = 0; i < pieces.size() && !m_stop; ++i) {
                      if (i > 0)
                          QThread::msleep(pieceGapMs);
                      end.write(pieces[i]);
                  }
              }
          })
    {
    }
    ~Responder()
    {
        m_stop = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

LinkValue tcpServerLink(LinkValue l, int port, const QString &driver)
{
    l.linkType = "Ethernet/TCP";
    l.master_or_slave = 1;
    l.hmi_ip = "127.0.0.1";
    l.hmi_port = static_cast<quint16>(port);
    l.link_driver = driver;
    return l;
}

}  // namespace

TEST_F(LinkThreadTest, StationFailureSetsBitsAndTellsTheDriver)
{
    openLine();
    ASSERT_EQ(start(link("results=2;station=9")), 0);
    EXPECT_TRUE(eventually([&] { return localBit(60104) == 1 && localBit(ULinkThread::stationErrorBit(1, 9)) == 1; }));
    EXPECT_TRUE(eventually([&] { return counter(CNT_DISCONNECT) >= 1; }));
    EXPECT_EQ(counter(CNT_LAST_LEN), 0);  // nobody answered: the driver saw the time-out
    EXPECT_TRUE(log.contains("station:9 failed"));
}

TEST_F(LinkThreadTest, ExchangeFailureResetsThePortAndPauses)
{
    openLine();
    ASSERT_EQ(start(link("results=9;station=3")), 0);
    EXPECT_TRUE(eventually([&] { return localBit(60104) == 1; }));
    QThread::msleep(1500);
    // One exchange, then a 1 s pause before the next: far fewer than the
    // dozens a 5 ms cycle would give.
    EXPECT_LE(counter(CNT_DEALT), 3);
    EXPECT_GE(counter(CNT_DEALT), 1);
}

TEST_F(LinkThreadTest, ReplyInPiecesReachesTheDriverWholeUntilTheTimeOut)
{
    openLine();
    struct Case {
        QList<QByteArray> pieces;
        QByteArray whole;  // what the driver is finally handed; empty: no reply
        const char *results;
        int bit;  // the station's error bit after it
    } cases[] = {
        {{"AB", "CDEF"}, "ABCDEF", "1", 0},
        {{"ABCDEF"}, "ABCDEF", "1", 0},
        {{"AB"}, "", "2", 1},  // the rest never comes
    };
    int id = 1;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pieces.join('|').toStdString());
        stageDriver("scripted", id);
        LinkValue l = link(QString("need=6;results=%1;station=%2").arg(c.results).arg(id));
        l.id = id;
        l.timeout1 = 400;
        std::atomic<int> answered{0};  // the first request only, so later polls cannot blur the counts
        Responder plc(*device, [&](const QByteArray &) { return answered++ ? QList<QByteArray>() : c.pieces; });
        QElapsedTimer clock;
        clock.start();
        ASSERT_EQ(start(l), 0);
        ASSERT_TRUE(eventually([&] { return counter(CNT_DEALT) >= 1; }));
        const qint64 dealtAfter = clock.elapsed();
        EXPECT_EQ(lastBuffer(), c.whole);
        EXPECT_EQ(counter(CNT_NEED_MORE), c.pieces.size() - (c.whole.isEmpty() ? 0 : 1));
        EXPECT_EQ(counter(CNT_EMPTY_CALLS), c.whole.isEmpty() ? 1 : 0);
        if (c.whole.isEmpty()) {
            EXPECT_GE(dealtAfter, 380);  // not before the reply time-out
        }
        EXPECT_TRUE(eventually([&] { return localBit(ULinkThread::stationErrorBit(1, id)) == c.bit; }));
        thread.reset();
        ++id;
    }
}

TEST_F(LinkThreadTest, FramesWithoutAReplyGoOutAfterATurnaroundPause)
{
    openLine();
    LinkValue l = link("noreply=1;results=1");
    ASSERT_EQ(start(l), 0);
    const QByteArray sent = device->read(4096, 1000);
    const int frames = sent.count("REQ");
    // 80 ms of turnaround (the reply time-out, shorter than 100) and a 5 ms cycle.
    EXPECT_GE(frames, 6) << sent.toStdString();
    EXPECT_LE(frames, 14) << sent.toStdString();
    EXPECT_EQ(counter(CNT_DEALT), 0);
    EXPECT_EQ(counter(CNT_EMPTY_CALLS), 0);
}

TEST_F(LinkThreadTest, EmptyOrUnknownParityKeepsTheLineMode)
{
    struct Case {
        const char *checkBit;
        int protocol;
        const char *line;
    } cases[] = {
        {"", 485, "115200-8-1-NONE mode:2"},
        {"MARK", 422, "115200-8-1-NONE mode:1"},
        {"none", 3, "115200-8-1-NONE mode:2"},
        {" ", 0, "115200-8-1-NONE mode:-1"},
    };
    openLine();
    for (const Case &c : cases) {
        LinkValue l = link("results=3");
        l.check_bit = c.checkBit;
        l.serial_comm_protocol = c.protocol;
        ASSERT_EQ(start(l), 0) << c.checkBit;
        EXPECT_TRUE(log.contains(QString("/dev/ttyO1 ") + c.line)) << c.checkBit << "\n" << log.text().toStdString();
        thread.reset();
    }
    EXPECT_EQ(log.count("check_bit \"MARK\" unknown, no parity"), 1);
}

TEST_F(LinkThreadTest, SerialLinkWithoutAComNumberIsRefusedOnce)
{
    openLine();
    for (const char *type : {"COM", "COMx", "COM0"}) {
        LinkValue l = link("results=1");
        l.linkType = type;
        EXPECT_EQ(start(l), -1) << type;
        EXPECT_EQ(thread->lLinkReset(), -1);  // what the thread's retries do: quietly nothing
        EXPECT_TRUE(thread->isRunning());
        EXPECT_EQ(log.count(QString("link_type \"%1\" names no COM port number").arg(type)), 1) << type;
        thread.reset();
    }
    EXPECT_FALSE(log.contains("port open failed"));
}

TEST_F(LinkThreadTest, DriverCanAskForNewPortParameters)
{
    openLine();
    ASSERT_EQ(start(link("results=100,1;setup=1-9600-8-1-EVEN")), 0);
    EXPECT_TRUE(eventually([&] { return log.contains("new port parameters:1-9600-8-1-EVEN"); }));
    EXPECT_TRUE(eventually([&] { return counter(CNT_DEALT) >= 4; })) << log.text().toStdString();  // the port still works
}

TEST_F(LinkThreadTest, SlaveLinkAnswersRequestsWithTheDriversReply)
{
    openLine();
    ASSERT_EQ(start(link("results=6", 1)), 0);
    ASSERT_TRUE(device->write("Q1"));
    QByteArray reply = device->read(4, 2000);
    EXPECT_TRUE(reply.startsWith("RSP")) << reply.toStdString();
}

TEST_F(LinkThreadTest, SuspendedLinkStaysQuiet)
{
    openLine();
    ASSERT_EQ(start(link("results=3")), 0);
    EXPECT_TRUE(eventually([&] { return counter(CNT_FRAMES) >= 2; }));
    thread->setSupend(true);
    QThread::msleep(200);
    int frames = counter(CNT_FRAMES);
    QThread::msleep(300);
    EXPECT_LE(counter(CNT_FRAMES), frames + 1);
    thread->setSupend(false);
    EXPECT_TRUE(eventually([&] { return counter(CNT_FRAMES) > frames + 2; }));
}

TEST_F(LinkThreadTest, MissingPortMarksTheLinkFailedAndRetries)
{
    stageDriver();
    ASSERT_EQ(start(link("results=1")), -1);
    EXPECT_TRUE(eventually([&] { return localBit(60104) == 1; }));
    EXPECT_TRUE(thread->isRunning());
}

TEST_F(LinkThreadTest, LinkWithoutADriverEndsItsThread)
{
    openLine();
    writeFile(box.path() + "/usr/brenta/project/driver/libscripted_0.so", "not a library");
    start(link("results=1"));
    EXPECT_TRUE(thread->wait(3000));
    EXPECT_TRUE(log.contains("load failed"));
    EXPECT_TRUE(log.contains("driver link exit :PLC1"));
    EXPECT_FALSE(thread->hasDriver());
}

TEST_F(LinkThreadTest, AddressesResolveWithTheBitFormFirst)
{
    openLine();
    ASSERT_EQ(start(link("results=3")), 0);
    EXPECT_EQ(thread->getAddrIndexFromStr("4X", "12", 1, 0), 1200);   // "12.0"
    EXPECT_EQ(thread->getAddrIndexFromStr("4X", "12", 1, 1), 1299);   // as given
    EXPECT_EQ(thread->getAddrIndexFromStr("BIT", "5", 1, 0), 599);    // driver said retry plain
}

TEST_F(LinkThreadTest, MpiDriversRunTheirOwnServiceInsteadOfFrames)
{
    stageDriver("siemens_s7_300_mpi");
    LinkValue l = link("results=1");
    l.link_driver = "siemens_s7_300_mpi";
    l.link_device = "un300(mpi)";
    EXPECT_EQ(start(l), 0);  // no serial port of ours is needed
    EXPECT_TRUE(eventually([&] { return counter(CNT_MPI_DEAL) >= 3; }));
    EXPECT_EQ(counter(CNT_MPI_INIT), 1);
    EXPECT_EQ(counter(CNT_FRAMES), 0);
}

TEST_F(LinkThreadTest, Iec104ClientTurnReportsTheLinkFromWhatComesBack)
{
    openLine();
    LinkValue l = link("results=3,1");
    l.linkName = "iec_104_client_1";
    ASSERT_EQ(start(l), 0);
    EXPECT_TRUE(device->read(4, 2000).startsWith("REQ"));
    ASSERT_TRUE(device->write(QByteArray("\x68\x04\x43", 3)));  // a TESTFR cut in two
    QThread::msleep(100);
    ASSERT_TRUE(device->write(QByteArray("\x00\x00\x00", 3)));
    // A reply the driver calls incomplete marks the link failed until the next
    // frame goes out.
    EXPECT_TRUE(eventually([&] { return log.contains("communication failed"); }));
    EXPECT_TRUE(eventually([&] { return log.count("communicating") >= 2 && localBit(60104) == 0; }));
    EXPECT_EQ(counter(CNT_LAST_LEN), 6);
}

TEST_F(LinkThreadTest, TcpServerLinkAnswersEachClientFromItsEventLoop)
{
    int argc = 0;
    QCoreApplication app(argc, nullptr);  // the link thread's event loop needs one, as in the gateway
    stageDriver();
    uchar failed = 1;
    communication::getInstance()->setCommValue("LB", "LB", 60106, 0, 1, &failed);
    int port = freeTcpPort();
    ASSERT_EQ(start(tcpServerLink(link("results=6"), port, "scripted")), 0);
    std::vector<FdEnd> clients;
    for (int i = 0; i < ULinkPortTcpServer::kMaxClients; ++i)
        clients.push_back(tcpConnect(port));
    ASSERT_TRUE(clients.back().ok());
    ASSERT_TRUE(clients[0].write("Q1"));
    EXPECT_EQ(clients[0].read(4, 2000), "RSP0");
    ASSERT_TRUE(clients.back().write("Q2"));
    EXPECT_EQ(clients.back().read(4, 2000), "RSP1");
    EXPECT_TRUE(eventually([&] { return localBit(60106) == 0; }));  // a served request marks the link good

    FdEnd extra = tcpConnect(port);  // one too many: the server hangs up
    ASSERT_TRUE(extra.ok());
    extra.write("Q3");
    EXPECT_TRUE(extra.read(4, 1000).isEmpty());
    EXPECT_TRUE(eventually([&] { return log.contains("clients already, refusing 127.0.0.1"); }));
    thread.reset();  // stop() ends the event loop
}

TEST_F(LinkThreadTest, UdpServerLinkAnswersEachDatagramsSender)
{
    int argc = 0;
    QCoreApplication app(argc, nullptr);
    stageDriver();
    int port = freeTcpPort();
    LinkValue l = tcpServerLink(link("results=6"), port, "scripted");
    l.linkType = "Ethernet";
    ASSERT_EQ(start(l), 0);
    UdpPeer first, second;
    ASSERT_TRUE(first.sendTo(port, "Q1"));  // the socket is bound before the loop runs
    EXPECT_EQ(first.receive(2000), "RSP0");
    ASSERT_TRUE(second.sendTo(port, "Q2"));
    EXPECT_EQ(second.receive(2000), "RSP1");
    EXPECT_TRUE(first.receive(200).isEmpty());
}

TEST_F(LinkThreadTest, Iec104ServerDealsEachApduStuckTogetherOrCutApart)
{
    stageDriver("iec_104_scripted");
    int port = freeTcpPort();
    ASSERT_EQ(start(tcpServerLink(link("results=1"), port, "iec_104_scripted")), 0);
    FdEnd station = tcpConnect(port);
    ASSERT_TRUE(station.ok());
    const QByteArray startAct("\x68\x04\x07\x00\x00\x00", 6), testAct("\x68\x04\x43\x00\x00\x00", 6);
    ASSERT_TRUE(station.write(startAct + testAct));
    // One reply per APDU, each sent as soon as the driver dealt with it.
    EXPECT_EQ(station.read(8, 3000), "REQ0REQ1");
    EXPECT_EQ(counter(CNT_DEALT), 2);
    EXPECT_TRUE(log.contains("ip:127.0.0.1 conneted"));

    ASSERT_TRUE(station.write(startAct.left(3)));  // cut across two reads
    QThread::msleep(100);
    ASSERT_TRUE(station.write(startAct.mid(3)));
    EXPECT_EQ(station.read(4, 3000), "REQ2");
    EXPECT_EQ(counter(CNT_LAST_LEN), 6);
}
