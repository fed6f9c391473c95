// lumbra-plcsim from the masters' side.
#include "fdend.h"
#include "modbusmaster.h"
#include "process.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

using namespace lumbra::test;

namespace {

const QString kUsageStart = "usage: lumbra-plcsim [--tcp [ADDR:]PORT | --rtu]";

// Holding (or with input=true input) registers; empty when the read failed.
std::vector<uint16_t> words(modbus_t *m, int addr, int count, bool input = false)
{
    std::vector<uint16_t> out(static_cast<size_t>(count));
    const int n = input ? modbus_read_input_registers(m, addr, count, out.data())
                        : modbus_read_registers(m, addr, count, out.data());
    return n == count ? out : std::vector<uint16_t>();
}

std::vector<uint8_t> bits(modbus_t *m, int addr, int count, bool input = false)
{
    std::vector<uint8_t> out(static_cast<size_t>(count));
    const int n = input ? modbus_read_input_bits(m, addr, count, out.data())
                        : modbus_read_bits(m, addr, count, out.data());
    return n == count ? out : std::vector<uint8_t>();
}

int fromBcd(uint16_t v)
{
    return (v >> 12 & 0xF) * 1000 + (v >> 8 & 0xF) * 100 + (v >> 4 & 0xF) * 10 + (v & 0xF);
}

// A Modbus TCP request for count holding registers at addr.
QByteArray mbapRead(int tid, int unit, int addr, int count)
{
    const char adu[] = {char(tid >> 8), char(tid), 0, 0, 0, 6, char(unit), 3, char(addr >> 8), char(addr),
                        char(count >> 8), char(count)};
    return QByteArray(adu, sizeof adu);
}

// 0 when the request by function code succeeded, else errno.
int outcome(modbus_t *m, int function, int addr, int count)
{
    std::vector<uint16_t> w(static_cast<size_t>(count), 0x1111);
    std::vector<uint8_t> b(static_cast<size_t>(count), 1);
    int n = -1;
    switch (function) {
    case 1: n = modbus_read_bits(m, addr, count, b.data()); break;
    case 2: n = modbus_read_input_bits(m, addr, count, b.data()); break;
    case 3: n = modbus_read_registers(m, addr, count, w.data()); break;
    case 4: n = modbus_read_input_registers(m, addr, count, w.data()); break;
    case 6: n = modbus_write_register(m, addr, w[0]); break;
    case 15: n = modbus_write_bits(m, addr, count, b.data()); break;
    case 16: n = modbus_write_registers(m, addr, count, w.data()); break;
    }
    return n >= 0 ? 0 : errno;
}

const QStringList kFaultArgs = {"--holes", "50-59,70", "--exception", "4@7,10@300,11@301-302", "-v"};

// What a master sees of kFaultArgs.
void expectFaults(modbus_t *m)
{
    const uint16_t before[] = {1, 2, 3, 4};
    ASSERT_EQ(modbus_write_registers(m, 46, 4, before), 4);
    const struct {
        int function, addr, count, error;
    } cases[] = {
        {3, 40, 10, 0}, {3, 45, 10, EMBXILADD}, {3, 60, 10, 0}, {3, 70, 1, EMBXILADD}, {3, 71, 10, 0},
        {4, 59, 1, EMBXILADD}, {1, 55, 1, EMBXILADD}, {2, 40, 10, 0}, {6, 50, 1, EMBXILADD},
        {16, 48, 4, EMBXILADD}, {15, 58, 3, EMBXILADD}, {3, 0, 10, EMBXSFAIL}, {3, 300, 1, EMBXGPATH},
        {16, 302, 1, EMBXGTAR},
    };
    for (const auto &c : cases)
        EXPECT_EQ(outcome(m, c.function, c.addr, c.count), c.error)
            << "fc " << c.function << " addr " << c.addr << " count " << c.count;
    // The refused write changed nothing, not even its addresses outside the hole.
    EXPECT_EQ(words(m, 46, 4), (std::vector<uint16_t>{1, 2, 3, 4}));
}

// Seconds into the hour, which the periods of both waves divide.
double wallSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec % 3600) + ts.tv_nsec / 1e9;
}

class PlcSim : public ::testing::Test {
protected:
    QTemporaryDir dir;  // outlives the simulator working in it
    ChildProcess sim;
    int port = freeTcpPort();

    void startTcp(QStringList extra)
    {
        ASSERT_TRUE(sim.start(LUMBRA_PLCSIM_BINARY, QStringList{"--tcp", QString::number(port)} + extra, dir.path()));
        ASSERT_TRUE(sim.waitForOutput(QString("plcsim: Modbus TCP on 127.0.0.1:%1, unit").arg(port), 5000))
            << sim.output().toStdString();
    }
    QString link() const { return dir.path() + "/dev/ttyO1"; }
    void startRtu(const QStringList &extra)
    {
        ASSERT_TRUE(sim.start(LUMBRA_PLCSIM_BINARY, QStringList{"--rtu", "--link", link()} + extra, dir.path()));
        ASSERT_TRUE(sim.waitForOutput("plcsim: Modbus RTU on", 5000)) << sim.output().toStdString();
    }
    Master rtuMaster(int unit) { return connected(modbus_new_rtu(link().toLocal8Bit().constData(), 9600, 'N', 8, 1), unit); }
    int exitStatus(const QStringList &args)
    {
        sim.start(LUMBRA_PLCSIM_BINARY, args, dir.path());
        return sim.waitForExit(5000) ? sim.exitCode() : -1;
    }
};

}  // namespace

TEST_F(PlcSim, LiveValuesFollowTheRegisterMap)
{
    ASSERT_NO_FATAL_FAILURE(startTcp({"--rate", "50", "--registers", "200"}));
    Master m = tcpMaster(port, 1);
    ASSERT_TRUE(m);
    const std::vector<uint16_t> r = words(m.get(), 0, 125);
    ASSERT_EQ(r.size(), 125u);
    const double now = wallSeconds();
    const std::time_t nowSecs = std::time(nullptr);

    const double pi = std::acos(-1.0);
    EXPECT_NEAR(static_cast<int16_t>(r[1]), 1000 * std::sin(2 * pi * now / 60), 250);
    const uint32_t raw = static_cast<uint32_t>(r[2]) << 16 | r[3];
    float temperature = 0;
    std::memcpy(&temperature, &raw, sizeof temperature);
    EXPECT_NEAR(temperature, 20 + 5 * std::sin(2 * pi * now / 120), 0.6);

    std::tm t{};
    t.tm_sec = fromBcd(r[4]), t.tm_min = fromBcd(r[5]), t.tm_hour = fromBcd(r[6]);
    t.tm_mday = fromBcd(r[7]), t.tm_mon = fromBcd(r[8]) - 1, t.tm_year = fromBcd(r[9]) - 1900, t.tm_isdst = -1;
    EXPECT_LE(std::abs(std::difftime(std::mktime(&t), nowSecs)), 2.0);
    EXPECT_EQ(fromBcd(r[10]), t.tm_wday);

    // BCD printed in hex reads as the decimal it stands for.
    QByteArray text;  // high byte first, as devices store text
    for (int a = 11; a <= 18; ++a)
        text.append(static_cast<char>(r[a] >> 8)).append(static_cast<char>(r[a] & 0xFF));
    EXPECT_EQ(text, QString::asprintf("PLCSIM %02x:%02x:%02x ", r[6], r[5], r[4]).toLatin1());

    EXPECT_TRUE(eventually([&] {
        std::vector<uint16_t> c = words(m.get(), 0, 1);
        return !c.empty() && static_cast<uint16_t>(c[0] - r[0]) >= 2;
    }, 2000));
    for (int a = 100; a < 125; ++a)
        EXPECT_EQ(r[a], static_cast<uint16_t>(a + r[0])) << a;
    // The bulk coils, read while the counter stands still.
    EXPECT_TRUE(eventually([&] {
        std::vector<uint16_t> before = words(m.get(), 0, 1);
        std::vector<uint8_t> b = bits(m.get(), 100, 100);
        if (b.empty() || before != words(m.get(), 0, 1))
            return false;
        for (int i = 0; i < 100; ++i)
            if (b[i] != ((100 + i + before[0]) & 1))
                return false;
        return true;
    }, 2000));
    EXPECT_EQ(words(m.get(), 190, 10).size(), 10u);
    EXPECT_TRUE(words(m.get(), 195, 10).empty());
    EXPECT_EQ(errno, EMBXILADD);
}

TEST_F(PlcSim, AlarmWordAndCoilToggleTogether)
{
    ASSERT_NO_FATAL_FAILURE(startTcp({"--rate", "50", "--alarm-period", "1"}));
    Master m = tcpMaster(port, 1);
    ASSERT_TRUE(m);
    std::vector<int> states;  // each change of the alarm word
    int mismatches = 0;
    eventually([&] {
        std::vector<uint16_t> w = words(m.get(), 20, 1);
        std::vector<uint8_t> coil = bits(m.get(), 0, 1);
        std::vector<uint8_t> input = bits(m.get(), 0, 1, true);
        if (w.empty() || coil.empty() || input.empty() || w != words(m.get(), 20, 1))
            return false;
        if ((w[0] != 0 && w[0] != 100) || coil[0] != (w[0] == 100) || input[0] != coil[0])
            ++mismatches;
        if (states.empty() || states.back() != w[0])
            states.push_back(w[0]);
        return states.size() >= 3;
    }, 4000);
    EXPECT_EQ(mismatches, 0);
    EXPECT_GE(states.size(), 3u) << "the alarm did not toggle on and back";
}

TEST_F(PlcSim, WritesStayAndShowInTheInputAreas)
{
    ASSERT_NO_FATAL_FAILURE(startTcp({"--rate", "50"}));
    Master m = tcpMaster(port, 1);
    ASSERT_TRUE(m);
    std::vector<uint16_t> pattern;  // every free register a different value
    for (int a = 21; a <= 99; ++a)
        pattern.push_back(static_cast<uint16_t>(0xA500 + a));
    const uint8_t flags[] = {1, 0, 1};
    ASSERT_EQ(modbus_write_registers(m.get(), 21, 79, pattern.data()), 79);
    ASSERT_EQ(modbus_write_register(m.get(), 19, 0xBEEF), 1);
    ASSERT_EQ(modbus_write_bit(m.get(), 50, 1), 1);
    ASSERT_EQ(modbus_write_bits(m.get(), 60, 3, flags), 3);
    ASSERT_EQ(modbus_write_register(m.get(), 1, 30000), 1);  // the sine, out of its range

    for (bool input : {false, true}) {
        EXPECT_EQ(words(m.get(), 19, 1, input), std::vector<uint16_t>{0xBEEF}) << input;
        EXPECT_EQ(words(m.get(), 21, 79, input), pattern) << input;
        EXPECT_EQ(bits(m.get(), 50, 1, input), std::vector<uint8_t>{1}) << input;
        EXPECT_EQ(bits(m.get(), 60, 3, input), (std::vector<uint8_t>{1, 0, 1})) << input;
    }
    // The next updates take the live register back but leave the free ones.
    const std::vector<uint16_t> counter = words(m.get(), 0, 1);
    ASSERT_EQ(counter.size(), 1u);
    EXPECT_TRUE(eventually([&] {
        std::vector<uint16_t> now = words(m.get(), 0, 1);
        return !now.empty() && static_cast<uint16_t>(now[0] - counter[0]) >= 2;
    }, 2000));
    const std::vector<uint16_t> sine = words(m.get(), 1, 1);
    ASSERT_EQ(sine.size(), 1u);
    EXPECT_LE(static_cast<int16_t>(sine[0]), 1000);
    EXPECT_EQ(words(m.get(), 19, 1), std::vector<uint16_t>{0xBEEF});
    EXPECT_EQ(words(m.get(), 21, 79), pattern);
    EXPECT_EQ(bits(m.get(), 50, 1, true), std::vector<uint8_t>{1});
}

TEST_F(PlcSim, AnswersSeveralMastersOnItsUnitOnly)
{
    ASSERT_NO_FATAL_FAILURE(startTcp({"--unit", "7", "-v"}));
    Master first = tcpMaster(port, 7);
    Master device = tcpMaster(port, 0xFF);
    Master other = tcpMaster(port, 3, 300);
    ASSERT_TRUE(first && device && other);
    // Both connections stay open and are served in turns.
    EXPECT_EQ(words(first.get(), 0, 2).size(), 2u);
    EXPECT_EQ(words(device.get(), 0, 2).size(), 2u);
    EXPECT_TRUE(words(other.get(), 0, 2).empty());
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(words(first.get(), 0, 2).size(), 2u);
    EXPECT_TRUE(sim.waitForOutput("unit 3 fc 3 addr 0 count 2 (ignored", 2000)) << sim.output().toStdString();
    EXPECT_TRUE(sim.output().contains("unit 255 fc 3 addr 0 count 2\n"));
}

TEST_F(PlcSim, RtuOnThePtyLinkWhichGoesAtExit)
{
    ASSERT_TRUE(QDir().mkpath(dir.path() + "/dev"));
    ASSERT_TRUE(QFile::link("/nonexistent", link()));  // a stale link from an earlier run
    ASSERT_NO_FATAL_FAILURE(startRtu({"--unit", "2", "--rate", "50"}));
    const QString device = QFileInfo(link()).symLinkTarget();
    EXPECT_TRUE(device.startsWith("/dev/pts/")) << device.toStdString();
    EXPECT_TRUE(sim.output().contains(QString("plcsim: Modbus RTU on %1 (link %2), unit 2").arg(device, link())));

    Master m = rtuMaster(2);
    ASSERT_TRUE(m);
    const std::vector<uint16_t> first = words(m.get(), 0, 1);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_TRUE(eventually([&] {
        std::vector<uint16_t> c = words(m.get(), 0, 1);
        return !c.empty() && c[0] != first[0];
    }, 2000));

    // A request for another unit goes unanswered and costs the next one nothing.
    modbus_set_slave(m.get(), 5);
    modbus_set_response_timeout(m.get(), 0, 300000);
    EXPECT_TRUE(words(m.get(), 0, 1).empty());
    modbus_set_slave(m.get(), 2);
    EXPECT_EQ(words(m.get(), 0, 1).size(), 1u);

    sim.stop();
    EXPECT_EQ(sim.exitCode(), 0);
    EXPECT_FALSE(QFileInfo(link()).isSymLink());
}

TEST_F(PlcSim, TakenPlacesStopTheStart)
{
    TcpListener taken;
    EXPECT_EQ(exitStatus({"--tcp", QString::number(taken.port())}), 1);
    EXPECT_TRUE(sim.output().contains(QString("cannot listen on 127.0.0.1:%1").arg(taken.port())));

    const QString file = dir.path() + "/ttyO1";
    writeFile(file, "not a device");
    EXPECT_EQ(exitStatus({"--rtu", "--link", file}), 1);
    EXPECT_EQ(readFile(file), "not a device");
}

TEST_F(PlcSim, BadCommandLinesGetTheUsage)
{
    const struct {
        QStringList args;
        QString problem;
    } cases[] = {
        {{"--bogus"}, "'--bogus'"},
        {{"stray"}, "'stray'"},
        {{"--unit"}, "--unit needs a value"},
        {{"--unit", "abc"}, "'abc' is not a number"},
        {{"--unit", "-1"}, "'-1' is not a number"},
        {{"--rate", "10ms"}, "'10ms' is not a number"},
        {{"--unit", "0"}, "--unit: 0 is out of range"},
        {{"--registers=65537"}, "--registers: 65537"},
        {{"--tcp", "65536"}, "--tcp: 65536"},
        {{"--tcp", "plc.local:5020"}, "'plc.local'"},
        {{"--tcp", "5020", "--rtu"}, "exclude each other"},
        {{"--link", "/tmp/ttyO1"}, "--link needs --rtu"},
        {{"--holes", "7,,9"}, "--holes: '' is not a number"},
        {{"--holes", "59-50"}, "--holes: 50 is out of range (59..65535)"},
        {{"--exception", "5@7"}, "'5' is not an exception code"},
        {{"--exception", "2@7,7"}, "'7' is not CODE@ADDR"},
        {{"--exception", "4@x"}, "'x' is not a number"},
        {{"--rtu", "--reply-unit", "0"}, "--reply-unit is for TCP only"},
        {{"--noise", "4"}, "--noise needs --rtu"},
    };
    for (const auto &c : cases) {
        ChildProcess p;
        ASSERT_TRUE(p.start(LUMBRA_PLCSIM_BINARY, c.args, dir.path()));
        ASSERT_TRUE(p.waitForExit(5000));
        EXPECT_EQ(p.exitCode(), 2) << c.args.join(' ').toStdString();
        EXPECT_TRUE(p.output().startsWith(kUsageStart)) << p.output().toStdString();
        EXPECT_TRUE(p.output().contains(c.problem)) << p.output().toStdString();
    }
    EXPECT_EQ(exitStatus({"-h"}), 0);
    EXPECT_TRUE(sim.output().startsWith(kUsageStart));
}

TEST_F(PlcSim, OptionsAtTheirLimitsStart)
{
    ASSERT_NO_FATAL_FAILURE(startTcp({"--unit=247", "--registers=65536", "--rate=60000", "--alarm-period=3600"}));
    Master m = tcpMaster(port, 247);
    ASSERT_TRUE(m);
    const std::vector<uint16_t> counter = words(m.get(), 0, 1);
    ASSERT_EQ(counter.size(), 1u);
    EXPECT_EQ(words(m.get(), 65535, 1), std::vector<uint16_t>{static_cast<uint16_t>(65535 + counter[0])});
}

// The faults are the same on TCP, where the link tests meet them through the gateway.
TEST_F(PlcSim, HolesAndExceptionsRefuseOverRtu)
{
    ASSERT_NO_FATAL_FAILURE(startRtu(kFaultArgs));
    Master m = rtuMaster(1);
    ASSERT_TRUE(m);
    expectFaults(m.get());
    EXPECT_TRUE(sim.waitForOutput("unit 1 fc 3 addr 45 count 10 -> exception 2\n", 2000)) << sim.output().toStdString();
    // A broadcast into a hole is neither carried out nor answered: a stray
    // exception on the line would be taken for the next request's reply.
    modbus_set_slave(m.get(), 0);
    modbus_set_response_timeout(m.get(), 0, 300000);
    for (int addr : {50, 46}) {  // a hole, then a register that exists
        // This libmodbus waits even for a broadcast's reply: only a time-out is right.
        const int written = modbus_write_register(m.get(), addr, 9);
        EXPECT_TRUE(written == 1 || errno == ETIMEDOUT) << addr << ": " << modbus_strerror(errno);
    }
    modbus_set_slave(m.get(), 1);
    EXPECT_EQ(words(m.get(), 46, 1), std::vector<uint16_t>{9});
}

TEST_F(PlcSim, RepliesCarryTheConfiguredUnit)
{
    ASSERT_NO_FATAL_FAILURE(startTcp({"--unit", "3", "--reply-unit", "0", "--holes", "5"}));
    FdEnd c = tcpConnect(port);
    ASSERT_TRUE(c.ok());
    for (int unit : {3, 255}) {
        ASSERT_TRUE(c.write(mbapRead(0x1200 + unit, unit, 0, 2)));
        const QByteArray reply = c.read(13, 1000);
        ASSERT_EQ(reply.size(), 13) << unit;
        EXPECT_EQ(reply.left(2), mbapRead(0x1200 + unit, 0, 0, 0).left(2));
        EXPECT_EQ(reply.mid(6, 3), QByteArray::fromHex("000304")) << unit;
    }
    ASSERT_TRUE(c.write(mbapRead(7, 3, 5, 1)));
    EXPECT_EQ(c.read(9, 1000), QByteArray::fromHex("000700000003008302"));
    // Requests for other units still go unanswered.
    ASSERT_TRUE(c.write(mbapRead(8, 9, 0, 2)));
    EXPECT_TRUE(c.read(1, 300).isEmpty());
}


