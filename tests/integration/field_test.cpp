// The device path end to end against the simulated PLC, as plants have it:
// converters that cut replies apart, holes, line noise, dead devices.
#include "device_comm/communication.h"
#include "device_comm/src/ulinkthread.h"
#include "fdend.h"
#include "fragmentproxy.h"
#include "linkprobe.h"
#include "modbusmaster.h"
#include "modbusslave.h"
#include "process.h"
#include "ptypair.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

using namespace lumbra::test;

namespace {

communication *const comm = communication::getInstance();

const int kLinkFailedBit = 60106;  // any Ethernet link

// The simulated PLC, and a libmodbus master of the test's own that writes the
// patterns the gateway must read back (registers and coils 21-99 are left
// alone by the simulator).
class Plc {
public:
    bool startTcp(const QStringList &extra = {})
    {
        m_sim = std::make_unique<ChildProcess>();
        if (!m_sim->start(LUMBRA_PLCSIM_BINARY, QStringList{"--tcp", QString::number(m_port)} + extra, m_dir.path()) ||
            !m_sim->waitForOutput("plcsim: Modbus TCP on", 5000))
            return false;
        m_master = tcpMaster(m_port);
        return m_master != nullptr;
    }
    bool startRtu(const QString &link, const QStringList &extra)
    {
        m_sim = std::make_unique<ChildProcess>();
        return m_sim->start(LUMBRA_PLCSIM_BINARY, QStringList{"--rtu", "--link", link, "--baud", "115200"} + extra,
                            m_dir.path()) &&
               m_sim->waitForOutput("plcsim: Modbus RTU on", 5000);
    }
    int port() const { return m_port; }
    bool words(int addr, const std::vector<uint16_t> &w)
    {
        return modbus_write_registers(m_master.get(), addr, static_cast<int>(w.size()), w.data()) ==
               static_cast<int>(w.size());
    }
    bool coils(int addr, const std::vector<uint8_t> &b)
    {
        return modbus_write_bits(m_master.get(), addr, static_cast<int>(b.size()), b.data()) ==
               static_cast<int>(b.size());
    }
    void stop() { m_sim->stop(); }

private:
    QTemporaryDir m_dir;
    std::unique_ptr<ChildProcess> m_sim;
    int m_port = freeTcpPort();
    Master m_master;
};

QString tcpLink(const QString &name, int port, const QString &extra)
{
    return QString(R"({"link_name":"%1","link_type":"Ethernet/TCP","link_driver":"modbus_tcp","hmi_ip":"127.0.0.1",
        "hmi_port":"%2","plc_id":"1","comm_time":5,%3})")
        .arg(name)
        .arg(port)
        .arg(extra);
}

// One value the gateway reads: where, as what, and what the device holds.
struct Point {
    QString reg;
    int address;
    int kind;
    int count;
    QByteArray want;  // the bytes consumers must get
    int index = -1;
};

QByteArray le16(uint16_t v)
{
    return QByteArray(reinterpret_cast<const char *>(&v), 2);
}

QByteArray le32(uint32_t v)
{
    return QByteArray(reinterpret_cast<const char *>(&v), 4);
}

uint32_t floatBits(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

class Field : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    Plc plc;
    std::vector<Point> points;

    void TearDown() override { comm->stopLinks(); }

    void startLinks(const QStringList &links)
    {
        work.write("iotRunTime/driver/libmodbus_tcp.so", readFile(MODBUS_TCP_DRIVER));
        work.write("iotRunTime/driver/libmodbus_rtu.so", readFile(MODBUS_RTU_DRIVER));
        work.write("iotRunTime/LinkConfiguration.json", ("{\"data\":[" + links.join(',') + "]}").toUtf8());
        comm->initLinks();
    }

    // Registers every point on link for polling.
    void poll(const QString &link)
    {
        QList<ExternalAddr> keys;
        for (Point &p : points) {
            p.index = comm->getIndexFromAddr(link, p.reg, QString::number(p.address), 1,
                                             p.kind == LUMBRA_KIND_BIT ? 0 : 1);
            ASSERT_GE(p.index, 0) << p.reg.toStdString() << " " << p.address;
            keys << ExternalAddrTable::makeAddr(link, p.reg, QString::number(p.address), 1, p.count, 0, p.index);
        }
        comm->setExternalAddrInfo(keys, EXTERNAL_ADDR_REALDATA);
        comm->enableExternalAddrInfo(true);
    }

    // 1 when point reads good and as wanted, 0 good but different, -1 not good.
    int check(const QString &link, const Point &p)
    {
        QByteArray got(qMax(p.want.size(), 8), '\0');
        const int rc = comm->getCommValue(link, p.reg, p.index, 1, p.count, reinterpret_cast<uchar *>(got.data()),
                                          got.size(), p.kind);
        if (rc != 1)
            return -1;
        return got.left(p.want.size()) == p.want ? 1 : 0;
    }
    bool allRight(const QString &link)
    {
        for (const Point &p : points)
            if (check(link, p) != 1)
                return false;
        return true;
    }

    // A pattern of words, 32-bit values, text and coils in the free area.
    void seedPattern()
    {
        std::vector<uint16_t> w;
        for (int a = 21; a < 60; ++a) {
            w.push_back(static_cast<uint16_t>(1000 + a));
            if (a % 2)
                points.push_back({"4X", a, LUMBRA_KIND_16BIT, 1, le16(static_cast<uint16_t>(1000 + a))});
        }
        ASSERT_TRUE(plc.words(21, w));
        const uint32_t f = floatBits(-273.15f);
        ASSERT_TRUE(plc.words(60, {0x1234, 0x5678, uint16_t(f >> 16), uint16_t(f), 'P' << 8 | 'u', 'm' << 8 | 'p'}));
        points.push_back({"4X", 60, LUMBRA_KIND_32BIT, 2, le32(0x12345678)});
        points.push_back({"4X", 62, LUMBRA_KIND_32BIT, 2, le32(f)});
        points.push_back({"4X", 64, LUMBRA_KIND_STRING, 2, "Pump"});
        ASSERT_TRUE(plc.coils(30, {1, 0, 1, 1, 0, 0, 1}));
        for (int a = 30; a < 37; ++a)
            points.push_back({"0X", a, LUMBRA_KIND_BIT, 1, QByteArray(1, "\1\0\1\1\0\0\1"[a - 30])});
    }

    // For ms, every point reads right at every look, and the link never failed.
    void staysRight(const QString &link, int ms)
    {
        QElapsedTimer t;
        t.start();
        int looks = 0;
        while (t.elapsed() < ms) {
            for (const Point &p : points)
                ASSERT_EQ(check(link, p), 1) << p.reg.toStdString() << " " << p.address << " after " << t.elapsed()
                                             << " ms\n"
                                             << log.text().toStdString();
            ASSERT_EQ(localBit(kLinkFailedBit), 0);
            ++looks;
            QThread::msleep(20);
        }
        EXPECT_GT(looks, 10);
    }
};

struct Cut {
    const char *name;
    FragmentProxy::Shape shape;
    int timeoutMs;
    const char *replyUnit;  // the unit id the device answers with, whatever was asked; null: the one asked
};

class FieldCut : public Field, public ::testing::WithParamInterface<Cut> {};

}  // namespace

// No retries: a single poll that failed would show as a station down.
TEST_P(FieldCut, RepliesCutApartReadRightAndNoPollFails)
{
    const char *unit = GetParam().replyUnit;
    ASSERT_TRUE(plc.startTcp(unit ? QStringList{"--registers", "200", "--reply-unit", unit}
                                  : QStringList{"--registers", "200"}));
    ASSERT_NO_FATAL_FAILURE(seedPattern());
    FragmentProxy proxy(plc.port());
    ASSERT_TRUE(proxy.ok());
    proxy.setShape(GetParam().shape);
    startLinks({tcpLink("PLC1", proxy.port(), QString(R"("timeout1":%1,"retry_times":0)").arg(GetParam().timeoutMs))});
    ASSERT_NO_FATAL_FAILURE(poll("PLC1"));
    ASSERT_TRUE(eventually([&] { return allRight("PLC1"); }, 8000)) << log.text().toStdString();
    const FragmentProxy::Counters before = proxy.counters();
    ASSERT_NO_FATAL_FAILURE(staysRight("PLC1", 3000));
    const FragmentProxy::Counters after = proxy.counters();
    const uint64_t requests = after.toDeviceChunks - before.toDeviceChunks;
    EXPECT_GE(requests, 10u);
    // Every reply really came in more than one piece.
    EXPECT_GE(after.toClientChunks - before.toClientChunks, 2 * requests - 2);
    for (const char *failure : {"does not answer", "truncated", "bad reply", "communication failed"})
        EXPECT_FALSE(log.contains(failure)) << failure << "\n" << log.text().toStdString();
    if (unit) {
        EXPECT_EQ(log.count(QString("station 1 answers with unit id %1").arg(unit)), 1);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Proxy, FieldCut,
    ::testing::Values(Cut{"InsideTheHeader", {FragmentProxy::Mode::Split, 5, 30, 2, 3}, 500, nullptr},
                      Cut{"AtRandomFromUnit255", {FragmentProxy::Mode::Split, 0, 30, 2, 3}, 500, "255"},
                      Cut{"ByteByByteFromUnit0", {FragmentProxy::Mode::Bytewise, 5, 30, 2, 3}, 1500, "0"}),
    [](const ::testing::TestParamInfo<Cut> &i) { return std::string(i.param.name); });

// A reply held back past its time-out arrives glued before the answer to the
// retry: its transaction id gives it away. (Without retries the link would
// reconnect after the time-out and the late reply die with the connection.)
TEST_F(Field, LateRepliesGluedToTheNextAreNeverTakenForIt)
{
    ASSERT_TRUE(plc.startTcp({"--registers", "200"}));
    ASSERT_NO_FATAL_FAILURE(seedPattern());
    FragmentProxy proxy(plc.port());
    ASSERT_TRUE(proxy.ok());
    proxy.setShape({FragmentProxy::Mode::StaleTail, 5, 30, 2, 3});
    startLinks({tcpLink("PLC1", proxy.port(), R"("timeout1":150,"retry_times":2)")});
    ASSERT_NO_FATAL_FAILURE(poll("PLC1"));
    ASSERT_TRUE(eventually([&] { return allRight("PLC1"); }, 8000)) << log.text().toStdString();
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < 2000) {
        for (const Point &p : points)
            ASSERT_NE(check("PLC1", p), 0) << p.reg.toStdString() << " " << p.address << " read a wrong value";
        QThread::msleep(10);
    }
    EXPECT_TRUE(eventually([&] { return log.contains("reply for another transaction"); }, 3000));
    EXPECT_TRUE(eventually([&] { return allRight("PLC1"); }));
}

// Registers 52, 54 and 55 do not exist. The planner merges the configured
// addresses 50-60 into one request, bridging the unconfigured 55, 57 and 59;
// the device refuses it.
TEST_F(Field, HolesInsideMergedBlocksFailOnlyThemselves)
{
    ASSERT_TRUE(plc.startTcp({"--registers", "200", "--holes", "52,54-55"}));
    ASSERT_TRUE(plc.words(50, {510, 511}));
    ASSERT_TRUE(plc.words(53, {513}));
    ASSERT_TRUE(plc.words(56, {516}));
    ASSERT_TRUE(plc.words(58, {518, 0, 0}));
    for (int a : {50, 51, 52, 53, 54, 56, 58, 60})
        points.push_back({"4X", a, LUMBRA_KIND_16BIT, 1, le16(static_cast<uint16_t>(a == 60 ? 0 : 460 + a))});
    startLinks({tcpLink("PLC1", plc.port(), R"("timeout1":300,"retry_times":1)")});
    ASSERT_NO_FATAL_FAILURE(poll("PLC1"));

    const auto isHole = [&](int a) { return a == 52 || a == 54; };
    EXPECT_TRUE(eventually([&] {
        for (const Point &p : points)
            if (check("PLC1", p) != (isHole(p.address) ? -1 : 1))
                return false;
        return true;
    }, 8000)) << log.text().toStdString();
    for (const Point &p : points) {
        if (!isHole(p.address))
            continue;
        int quality = -1;
        uint16_t v = 0xFFFF;
        EXPECT_EQ(comm->getCommValue("PLC1", "4X", p.index, 1, 1, reinterpret_cast<uchar *>(&v), 2,
                                     LUMBRA_KIND_16BIT, &quality),
                  0);
        EXPECT_EQ(quality, LUMBRA_QUALITY_REFUSED) << p.address;
    }
    EXPECT_EQ(localBit(kLinkFailedBit), 0);  // the device answered: the link is up
    EXPECT_TRUE(log.contains("exception 2 (illegal data address)"));
}

// The four byte orders of 32-bit values and the two of text, per link and
// overridden per station (the simulator answers as unit 1 and as 255).
TEST_F(Field, ByteOrderCodesReadEveryOrderOfTheSameValues)
{
    ASSERT_TRUE(plc.startTcp({"--registers", "200"}));
    const uint32_t f = floatBits(12.5f);
    const uint16_t a = f >> 16, b = f & 0xFFFF;
    const auto swap = [](uint16_t v) { return static_cast<uint16_t>(v << 8 | v >> 8); };
    // Per order: 0x11223344, the float, then "ABCD" as the device stores it.
    const std::vector<uint16_t> layouts[4] = {
        {0x1122, 0x3344, a, b},
        {0x3344, 0x1122, b, a},
        {0x2211, 0x4433, swap(a), swap(b)},
        {0x4433, 0x2211, swap(b), swap(a)},
    };
    for (int order = 0; order < 4; ++order) {
        std::vector<uint16_t> w = layouts[order];
        w.push_back(0x4142);
        w.push_back(0x4344);
        ASSERT_TRUE(plc.words(21 + 10 * order, w));
    }
    QStringList links;
    for (int code = 0; code < 8; ++code)
        links << tcpLink(QString("C%1").arg(code), plc.port(),
                         QString(R"("timeout1":500,"data_conver":%1,"station_data_conver":"255:%2")")
                             .arg(code)
                             .arg(code ^ 7));
    startLinks(links);
    struct Read {
        QString link;
        int station, code, i32, flt, txt;
    };
    std::vector<Read> reads;
    QList<ExternalAddr> keys;
    for (int code = 0; code < 8; ++code) {
        for (int station : {1, 255}) {
            const int effective = station == 1 ? code : code ^ 7;
            const int base = 21 + 10 * (effective & 3);
            const QString link = QString("C%1").arg(code);
            const auto index = [&](int a) { return comm->getIndexFromAddr(link, "4X", QString::number(a), station, 1); };
            reads.push_back({link, station, effective, index(base), index(base + 2), index(base + 4)});
            keys << ExternalAddrTable::makeAddr(link, "4X", QString::number(base), station, 6, 0, reads.back().i32);
        }
    }
    comm->setExternalAddrInfo(keys, EXTERNAL_ADDR_REALDATA);
    comm->enableExternalAddrInfo(true);
    for (const Read &r : reads) {
        uint32_t number = 0;
        float real = 0;
        char text[5] = {};
        const auto get = [&](int index, void *out, int kind) {
            return comm->getCommValue(r.link, "4X", index, r.station, 2, static_cast<uchar *>(out), 4, kind);
        };
        ASSERT_TRUE(eventually([&] { return get(r.i32, &number, LUMBRA_KIND_32BIT) == 1; }))
            << "code " << r.code << " station " << r.station;
        ASSERT_EQ(get(r.flt, &real, LUMBRA_KIND_32BIT), 1);
        ASSERT_EQ(get(r.txt, text, LUMBRA_KIND_STRING), 1);
        EXPECT_EQ(number, 0x11223344u) << "code " << r.code;
        EXPECT_EQ(real, 12.5f) << "code " << r.code;
        EXPECT_STREQ(text, r.code & 4 ? "BADC" : "ABCD") << "code " << r.code;
    }
}

// Noise before every reply on an RTU line costs no poll at all.
TEST_F(Field, NoiseBeforeEveryRtuReplyLosesNoPoll)
{
    const QString tty = box.path() + "/dev/ttyO1";
    ASSERT_TRUE(plc.startRtu(tty, {"--noise", "7", "--registers", "200"}));
    for (int a = 0; a < 3; ++a)
        points.push_back({"4X", 30 + a, LUMBRA_KIND_16BIT, 1, le16(0)});
    startLinks({R"({"link_name":"RTU1","link_type":"COM1","link_driver":"modbus_rtu","master_or_slave":0,
        "baudrate":"115200","data_bit":"8","stop_bit":"1","check_bit":"NONE","plc_id":"1","comm_time":5,
        "timeout1":300,"retry_times":0})"});
    ASSERT_NO_FATAL_FAILURE(poll("RTU1"));
    ASSERT_TRUE(eventually([&] { return allRight("RTU1"); }, 5000)) << log.text().toStdString();
    uint16_t v = 4242;
    QString why;
    ASSERT_EQ(comm->setCommValue("RTU1", "4X", points[0].index, 1, 1, reinterpret_cast<uchar *>(&v), 2,
                                 LUMBRA_KIND_16BIT, &why),
              1)
        << why.toStdString();
    points[0].want = le16(4242);
    ASSERT_TRUE(eventually([&] { return allRight("RTU1"); }, 2000));
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < 3000) {
        ASSERT_TRUE(allRight("RTU1"));
        ASSERT_EQ(localBit(60104), 0);
        ASSERT_EQ(localBit(61001), 0);
        QThread::msleep(20);
    }
    EXPECT_TRUE(log.contains("bytes of noise before the reply of station 1"));
    EXPECT_FALSE(log.contains("does not answer"));
    EXPECT_FALSE(log.contains("no valid reply"));
}

// The slave dies behind its converter: the connection stays, nothing answers.
// A write must not wait for the poll's retries or a reconnect.
TEST_F(Field, WriteToADeadSlaveReturnsWithinOneReplyTimeOut)
{
    ASSERT_TRUE(plc.startTcp({"--registers", "200"}));
    points.push_back({"4X", 40, LUMBRA_KIND_16BIT, 1, le16(0)});
    ASSERT_TRUE(plc.words(40, {0}));
    FragmentProxy proxy(plc.port());
    ASSERT_TRUE(proxy.ok());
    const int timeoutMs = 400;
    startLinks({tcpLink("PLC1", proxy.port(), QString(R"("timeout1":%1,"retry_times":3)").arg(timeoutMs))});
    ASSERT_NO_FATAL_FAILURE(poll("PLC1"));
    ASSERT_TRUE(eventually([&] { return allRight("PLC1"); }));
    proxy.setDeviceDead(true);
    QThread::msleep(timeoutMs + 100);  // the link thread is now inside a poll's retries
    for (int attempt = 0; attempt < 3; ++attempt) {
        uint16_t v = 99;
        QString why;
        QElapsedTimer t;
        t.start();
        EXPECT_EQ(comm->setCommValue("PLC1", "4X", points[0].index, 1, 1, reinterpret_cast<uchar *>(&v), 2,
                                     LUMBRA_KIND_16BIT, &why),
                  -1);
        EXPECT_LE(t.elapsed(), timeoutMs + 100) << why.toStdString();
        EXPECT_FALSE(why.isEmpty());
    }
    EXPECT_TRUE(log.contains("link:PLC1 write of 4X"));
    proxy.setDeviceDead(false);
    uint16_t v = 77;
    EXPECT_TRUE(eventually([&] {
        return comm->setCommValue("PLC1", "4X", points[0].index, 1, 1, reinterpret_cast<uchar *>(&v), 2,
                                  LUMBRA_KIND_16BIT) == 1;
    }, 10000));
}

// The device goes away with its connection: what it sent before stops being
// current, whatever way the port fails, and comes back with the device.
TEST_F(Field, AGoneDeviceLeavesNoCurrentValue)
{
    ASSERT_TRUE(plc.startTcp({"--registers", "200"}));
    ASSERT_NO_FATAL_FAILURE(seedPattern());
    startLinks({tcpLink("PLC1", plc.port(), R"("timeout1":300,"retry_times":1)")});
    ASSERT_NO_FATAL_FAILURE(poll("PLC1"));
    ASSERT_TRUE(eventually([&] { return allRight("PLC1"); }));
    plc.stop();
    EXPECT_TRUE(eventually([&] {
        for (const Point &p : points)
            if (check("PLC1", p) != -1)
                return false;
        return true;
    }, 10000)) << log.text().toStdString();
    EXPECT_EQ(localBit(kLinkFailedBit), 1);
    ASSERT_TRUE(plc.startTcp({"--registers", "200"}));
    points.clear();
    ASSERT_NO_FATAL_FAILURE(seedPattern());
    ASSERT_NO_FATAL_FAILURE(poll("PLC1"));
    EXPECT_TRUE(eventually([&] { return allRight("PLC1"); }, 40000)) << log.text().toStdString();
}

// The RTU path against a libmodbus slave on a pty: the slave dies and comes back.
namespace {

const int kTimeoutMs = 200;
const int kRetries = 1;

class RtuLink : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    std::unique_ptr<PtyPair> line;
    std::unique_ptr<ModbusSlave> slave;
    communication *comm = communication::getInstance();
    int hr = -1;

    void SetUp() override
    {
        line = std::make_unique<PtyPair>(box.path() + "/dev/ttyO1", box.path() + "/slave");
        ASSERT_TRUE(line->ok()) << line->log().toStdString();
        slave = ModbusSlave::rtu(line->linkB(), 115200, 1);
        ASSERT_TRUE(slave);
        work.write("iotRunTime/driver/libmodbus_rtu.so", readFile(MODBUS_RTU_DRIVER));
        work.write("iotRunTime/LinkConfiguration.json",
                   QString(R"({"data":[{"link_name":"PLC1","link_type":"COM1","link_driver":"modbus_rtu",
                       "master_or_slave":0,"baudrate":"115200","data_bit":"8","stop_bit":"1","check_bit":"NONE",
                       "plc_id":"1","comm_time":5,"timeout1":%1,"retry_times":%2}]})")
                       .arg(kTimeoutMs)
                       .arg(kRetries)
                       .toUtf8());
        comm->initLinks();
        hr = comm->getIndexFromAddr("PLC1", "4X", "10", 1, 1);
        ASSERT_GE(hr, 0);
        comm->setExternalAddrInfo({ExternalAddrTable::makeAddr("PLC1", "4X", "10", 1, 1, 0, hr)}, 0);
        comm->enableExternalAddrInfo(true);
    }

    void TearDown() override { comm->stopLinks(); }
};

}  // namespace

TEST_F(RtuLink, DeadSlaveSetsTheStatusBitAndRecoveryClearsIt)
{
    EXPECT_TRUE(eventually([&] { return localBit(60104) == 0; }));
    slave->stop();
    // One time-out plus the retries, per poll block, with room for the cycle.
    EXPECT_TRUE(eventually([&] { return localBit(60104) == 1; }, (kRetries + 1) * kTimeoutMs * 3 + 1000));
    EXPECT_TRUE(localBit(ULinkThread::stationErrorBit(1, 1)) == 1);
    ASSERT_TRUE(slave->start());
    slave->setHolding(10, 777);
    EXPECT_TRUE(eventually([&] {
        return localBit(60104) == 0 && localBit(ULinkThread::stationErrorBit(1, 1)) == 0 &&
               holdingWord("PLC1", hr) == 777;
    }));
    EXPECT_TRUE(log.contains("link:PLC1 communication failed"));
    EXPECT_TRUE(log.contains("link:PLC1 communicating"));
}
