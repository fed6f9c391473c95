// The Modbus driver plug-in, loaded as the gateway loads it, against libmodbus
// slaves over a socat pty pair (RTU) and loopback TCP.
#include "device_comm/serialport/fdhandle.h"
#include "modbus_harness.h"
#include "modbusslave.h"
#include "fdend.h"
#include "ptypair.h"
#include "testsupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <tuple>

using namespace modbus_test;
using namespace lumbra::test;

namespace {

constexpr int kLinkId = 7;

using Change = std::tuple<int, int, std::string, int>;  // link, station, register, index
std::vector<Change> g_changes;

void recordChange(int link, int station, const char *reg, int index)
{
    g_changes.emplace_back(link, station, reg, index);
}

using Request = std::tuple<int, int, int, int>;  // station, function, start, quantity

// The driver against a slave over RTU (false) or TCP (true).
class ModbusPeer : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        tcp = GetParam();
        d = std::make_unique<Driver>(tcp ? MODBUS_TCP_SO : MODBUS_RTU_SO);
        ASSERT_TRUE(d->loaded());
        if (tcp) {
            const int port = freeTcpPort();
            slave = ModbusSlave::tcp(port, kStation);
            end = std::make_unique<FdEnd>(tcpConnect(port));
        } else {
            pty = std::make_unique<PtyPair>(work.file("master"), work.file("slave"));
            ASSERT_TRUE(pty->ok()) << pty->log().toStdString();
            slave = ModbusSlave::rtu(pty->linkB(), 115200, kStation);
            end = std::make_unique<FdEnd>(pty->linkA());
        }
        line = end->fd();
        ASSERT_TRUE(slave);
        ASSERT_GE(line, 0);
        ASSERT_EQ(d->init(kLinkId, 1), 0);
        g_changes.clear();
        d->setCallback(recordChange);
    }

    int turn(const std::function<void(Bytes &)> &tamper = {}, FRAME_PRO *sent = nullptr)
    {
        return exchange(*d, line, tamper, sent);
    }

    bool pollUntil(const std::function<bool()> &done, int maxTurns = 40)
    {
        for (int i = 0; i < maxTurns && !done(); ++i)
            turn();
        return done();
    }

    Request request(const FRAME_PRO &f) const
    {
        const uint8_t *p = f.data + (tcp ? 6 : 0);
        return {p[0], p[1], p[2] << 8 | p[3], p[4] << 8 | p[5]};
    }

    int indexOf(const char *reg, const char *addr)
    {
        int index = -1;
        return d->checkAddr(reg, addr, &index, kStation, 1) == LUMBRA_ADDR_OK ? index : -1;
    }

    template <typename T>
    int get(const char *reg, const char *addr, int count, T *out)
    {
        return d->getData(kStation, reg, indexOf(reg, addr), count, reinterpret_cast<uint8_t *>(out), sizeof(T));
    }

    template <typename T>
    int set(const char *reg, const char *addr, int count, const T &value)
    {
        return d->setData(kStation, reg, indexOf(reg, addr), count, reinterpret_cast<const uint8_t *>(&value),
                          sizeof(T));
    }

    void setHolding(std::initializer_list<std::pair<int, uint16_t>> regs)
    {
        for (auto [address, value] : regs)
            slave->setHolding(address, value);
    }

    bool tcp = false;
    WorkDir work;
    std::unique_ptr<PtyPair> pty;
    std::unique_ptr<ModbusSlave> slave;
    std::unique_ptr<FdEnd> end;  // the driver's side of the line
    std::unique_ptr<Driver> d;
    int line = -1;
};

// For cases with a second station: an RTU libmodbus slave takes the frame
// after one for another unit to be that unit's reply, and ignores it.
class ModbusTcp : public ModbusPeer {
};

auto framingName = [](const auto &info) { return info.param ? "Tcp" : "Rtu"; };
INSTANTIATE_TEST_SUITE_P(Framing, ModbusPeer, ::testing::Values(false, true), framingName);
INSTANTIATE_TEST_SUITE_P(Framing, ModbusTcp, ::testing::Values(true), framingName);

}  // namespace

TEST_P(ModbusPeer, ReadsAndWritesEveryAreaAndReportsOnlyRealChanges)
{
    setHolding({{0, 0x1234}, {20, 0x0108}});
    slave->setInputRegister(5, 777);
    slave->setCoil(3, true);
    slave->setDiscreteInput(4, true);
    KEY_ADDRESS keys[] = {key("4X", "0"), key("4x", "20.3"), key("3X", "5"), key("0X", "3"), key("1X", "4")};
    ASSERT_EQ(d->merge(keys, 5), 5);
    uint16_t word = 0, input = 0;
    uint8_t bit = 0, coil = 0, discrete = 0;
    auto readAll = [&] {
        int known = get("4X", "0", 1, &word) + get("4X", "20.3", 1, &bit) + get("3X", "5", 1, &input);
        return known + get("0X", "3", 1, &coil) + get("1X", "4", 1, &discrete) == 5;
    };
    ASSERT_TRUE(pollUntil(readAll));
    EXPECT_EQ(std::make_tuple(word, bit, input, coil, discrete), std::make_tuple(0x1234, 1, 777, 1, 1));
    EXPECT_EQ(g_changes.size(), 5u) << "each address reports its first value once";
    EXPECT_EQ(lastStationText, "17");

    // Writes go before polls. What the device acknowledged reads back at once
    // and is news to consumers; a bit of a word leaves the other bits alone.
    g_changes.clear();
    const uint8_t coils[3] = {1, 0, 1};
    ASSERT_EQ(set("4X", "0", 1, uint16_t{0xBEEF}), 1);
    ASSERT_EQ(set("4X", "20.3", 1, uint8_t{0}), 1);
    ASSERT_EQ(set("0X", "3", 1, uint8_t{0}), 1);
    ASSERT_EQ(d->setData(kStation, "0X", 100, 3, coils, 3), 1);
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    ASSERT_TRUE(readAll());
    EXPECT_EQ(std::make_tuple(word, bit, coil), std::make_tuple(0xBEEF, 0, 0));
    EXPECT_EQ(g_changes.size(), 3u);
    EXPECT_EQ(std::make_tuple(slave->holding(0), slave->holding(20)), std::make_tuple(0xBEEF, 0x0100));
    EXPECT_EQ(std::vector<bool>({slave->coil(3), slave->coil(100), slave->coil(101), slave->coil(102)}),
              std::vector<bool>({false, true, false, true}));

    // Bit 0 of register 20 flips beside the watched bit 3: only register 0
    // really changed for its consumers.
    g_changes.clear();
    setHolding({{0, 0x4321}, {20, 0x0101}});
    ASSERT_TRUE(pollUntil([&] { return readAll() && word == 0x4321; }));
    for (int i = 0; i < 5; ++i)
        turn();
    EXPECT_EQ(g_changes, (std::vector<Change>{{kLinkId, kStation, "4X", 0}}));

    // Both back on: the coil on its own, the bit with FC 22 instead of a fetch.
    ASSERT_EQ(d->setProperty("bit_write=mask"), 0);
    ASSERT_EQ(set("4X", "20.3", 1, uint8_t{1}) + set("0X", "3", 1, uint8_t{1}), 2);
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    EXPECT_EQ(std::make_tuple(slave->holding(20), slave->coil(3)), std::make_tuple(0x0109, true));
    EXPECT_TRUE(readAll() && bit == 1 && coil == 1);
}

TEST_P(ModbusPeer, PropertyChoosesWordAndByteOrder)
{
    struct Row {
        const char *property;
        int rc;
        uint32_t read;        // registers 0x1122, 0x3344 as one value
        uint16_t written[2];  // 0xA1B2C3D4 as the device receives it
    } rows[] = {
        {"", 0, 0x11223344, {0xA1B2, 0xC3D4}},
        {"word_order=low_first", 0, 0x33441122, {0xC3D4, 0xA1B2}},
        {"byte_swap=1", 0, 0x22114433, {0xB2A1, 0xD4C3}},
        {" Word_Order = LOW_FIRST ; byte_swap=1; colour=blue", 0, 0x44332211, {0xD4C3, 0xB2A1}},
        {"word_order=sideways", -1, 0x11223344, {0xA1B2, 0xC3D4}},
        {"byte_swap", -1, 0x11223344, {0xA1B2, 0xC3D4}},
    };
    setHolding({{0, 0x1122}, {1, 0x3344}});
    KEY_ADDRESS k = key("4X", "0", 2);
    ASSERT_EQ(d->merge(&k, 1), 1);
    uint32_t v = 0;
    ASSERT_TRUE(pollUntil([&] { return get("4X", "0", 2, &v) == 1; }));
    for (const Row &row : rows) {
        SCOPED_TRACE(row.property);
        ASSERT_EQ(d->setProperty(row.property), row.rc);
        ASSERT_EQ(get("4X", "0", 2, &v), 1);
        EXPECT_EQ(v, row.read);
        ASSERT_EQ(set("4X", "70", 2, uint32_t{0xA1B2C3D4}), 1);
        ASSERT_TRUE(pollUntil([&] { return slave->holding(70) == row.written[0]; }, 4));
        EXPECT_EQ(slave->holding(71), row.written[1]);
    }
}

TEST_P(ModbusPeer, DamagedRepliesFailOnlyTheirExchange)
{
    const size_t fcAt = tcp ? 7 : 1, stationAt = tcp ? 6 : 0;
    std::pair<const char *, std::function<void(Bytes &)>> rows[] = {
        {"timed out", [](Bytes &r) { r.clear(); }},
        {"truncated", [](Bytes &r) { r.pop_back(); }},
        {"trailing byte", [&](Bytes &r) { r.push_back(0); reseal(r, tcp); }},
        {"garbage", [](Bytes &r) { std::fill(r.begin(), r.end(), 0x5A); }},
        {"checksum or transaction id", [&](Bytes &r) { r[tcp ? 1 : r.size() - 1] ^= 0x01; }},
        {"other station", [&](Bytes &r) { r[stationAt] ^= 0x01; reseal(r, tcp); }},
        {"other function", [&](Bytes &r) { r[fcAt] = 4; reseal(r, tcp); }},
        {"short byte count", [&](Bytes &r) { r[fcAt + 1] -= 2; reseal(r, tcp); }},
        {"one register short, all else consistent", [&](Bytes &r) {
             r.erase(r.begin() + fcAt + 2, r.begin() + fcAt + 4);
             r[fcAt + 1] -= 2;
             if (tcp)
                 r[5] -= 2;  // the MBAP length
             reseal(r, tcp);
         }},
    };
    setHolding({{0, 4242}, {200, 4343}});
    KEY_ADDRESS keys[] = {key("4X", "0"), key("4X", "200")};
    ASSERT_EQ(d->merge(keys, 2), 2);
    for (const auto &[name, tamper] : rows) {
        SCOPED_TRACE(name);
        FRAME_PRO failed{}, retried{};
        ASSERT_EQ(turn(tamper, &failed), LUMBRA_RESULT_INCOMPLETE);
        ASSERT_EQ(turn({}, &retried), LUMBRA_RESULT_GOOD);
        EXPECT_EQ(request(failed), request(retried)) << "the failed request goes out again";
    }
    uint16_t a = 0, b = 0;
    EXPECT_EQ(get("4X", "0", 1, &a) + get("4X", "200", 1, &b), 2);
    EXPECT_EQ(a + b, 4242 + 4343);
}

TEST_P(ModbusTcp, SilentStationFailsAfterItsRetriesSitsOutTheRoundAndRecovers)
{
    using Poll = std::pair<int, int>;  // station, result
    struct Row {
        int retries;
        std::vector<Poll> polls;
    } rows[] = {
        // Once station 17 failed, its block at 100 waits for the next round,
        // while station 18 is still asked.
        {0, {{17, 2}, {18, 2}, {17, 2}}},
        {2, {{17, 3}, {17, 3}, {17, 2}, {18, 3}}},
    };
    KEY_ADDRESS keys[] = {key("4X", "0"), key("4X", "100"), key("4X", "0", 1, 18)};
    uint16_t v = 0;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.retries);
        ASSERT_EQ(d->init(kLinkId, row.retries), 0);
        ASSERT_EQ(d->merge(keys, 3), 3);
        slave->setSilent(true);
        std::vector<Poll> polls;
        for (size_t i = 0; i < row.polls.size(); ++i) {
            FRAME_PRO f{};
            int result = turn({}, &f);
            polls.emplace_back(std::get<0>(request(f)), result);
        }
        EXPECT_EQ(polls, row.polls);
        slave->setSilent(false);
        const uint16_t fresh = static_cast<uint16_t>(100 + row.retries);
        slave->setHolding(0, fresh);
        EXPECT_TRUE(pollUntil([&] { return get("4X", "0", 1, &v) == 1 && v == fresh; }, 8));
    }
}

TEST_P(ModbusPeer, ExceptionRepliesKeepLastValuesAndPollingGoesOn)
{
    setHolding({{0, 11}, {250, 99}});
    KEY_ADDRESS keys[] = {key("4X", "0"), key("4X", "250")};
    ASSERT_EQ(d->merge(keys, 2), 2);
    uint16_t v = 0;
    ASSERT_TRUE(pollUntil([&] { return get("4X", "250", 1, &v) == 1; }));

    // The device shrinks its map: the block it no longer serves keeps the
    // value it last had, and the write it refuses does not hold up polling.
    slave->setHoldingCount(200);
    setHolding({{0, 12}, {250, 98}});
    ASSERT_EQ(set("4X", "260", 1, uint16_t{5}), 1);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(turn(), LUMBRA_RESULT_GOOD) << "an exception is an answer";
    EXPECT_EQ(get("4X", "250", 1, &v), 1);
    EXPECT_EQ(v, 99);
    EXPECT_EQ(get("4X", "0", 1, &v), 1);
    EXPECT_EQ(v, 12);
}

TEST_P(ModbusTcp, BlocksRespectRequestLimitsAndTheGapRule)
{
    std::vector<KEY_ADDRESS> coils;
    for (int i = 0; i < 2001; ++i)
        coils.push_back(key("0X", std::to_string(i).c_str()));
    struct Row {
        const char *name;
        std::vector<KEY_ADDRESS> keys;
        const char *property;
        std::set<Request> blocks;
    } rows[] = {
        {"126 registers", {key("4X", "0", 126)}, "", {{17, 3, 0, 125}, {17, 3, 125, 1}}},
        {"2001 coils", coils, "", {{17, 1, 0, 2000}, {17, 1, 2000, 1}}},
        {"gap of 8 bridged", {key("4X", "0"), key("4X", "9")}, "", {{17, 3, 0, 10}}},
        {"gap of 9 not", {key("4X", "0"), key("4X", "10")}, "", {{17, 3, 0, 1}, {17, 3, 10, 1}}},
        {"bit gap of 32 bridged", {key("1X", "0"), key("1X", "33")}, "", {{17, 2, 0, 34}}},
        {"no gaps wanted", {key("4X", "0"), key("4X", "1"), key("4X", "3")}, "max_gap=0", {{17, 3, 0, 2}, {17, 3, 3, 1}}},
        {"smaller requests", {key("4X", "0", 25)}, "max_regs=10", {{17, 3, 0, 10}, {17, 3, 10, 10}, {17, 3, 20, 5}}},
        {"stations and areas apart",
         {key("4X", "0"), key("4X", "0", 1, 18), key("3X", "0"), key("0x", "0")},
         "",
         {{17, 3, 0, 1}, {18, 3, 0, 1}, {17, 4, 0, 1}, {17, 1, 0, 1}}},
        {"bit of word, 32-bit and duplicates", {key("4X", "10.3"), key("4X", "11", 2), key("4X", "11", 2)}, "",
         {{17, 3, 10, 3}}},
        {"nothing usable", {key("2X", "1"), key("4X", "abc"), key("4X", "1", 1, 256), key("4X", "65535", 2)}, "", {}},
    };
    for (Row &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(d->setProperty(row.property), 0);
        int n = d->merge(row.keys.data(), static_cast<int>(row.keys.size()));
        ASSERT_EQ(n, static_cast<int>(row.blocks.size()));
        std::set<Request> seen;
        for (int i = 0; i < n; ++i) {
            FRAME_PRO f{};
            EXPECT_EQ(turn({}, &f), LUMBRA_RESULT_GOOD);
            seen.insert(request(f));
        }
        EXPECT_EQ(seen, row.blocks);
    }
    EXPECT_EQ(turn(), 0) << "a merge replaces the poll set, even with nothing";
}

TEST(ModbusPlugin, AddressGrammarAndIndexes)
{
    Driver d(MODBUS_RTU_SO);
    ASSERT_TRUE(d.loaded());
    struct Row {
        const char *reg, *addr;
        int rc, index;
    } rows[] = {
        {"4X", "0", 0, 0},        {"4x", "65535", 0, 65535}, {"4X", "100.3", 0, 0x100000 + 1603},
        {"0X", "5", 0, 5},        {"1x", "0009", 0, 9},      {"3X", "7.15", 0, 0x100000 + 127},
        {"0X", "5.0", 4, -1},     {"1X", "5.3", 4, -1},      {"4X", "65536", -1, -1},
        {"4X", "100.16", -1, -1}, {"4X", "-1", -1, -1},      {"4X", "", -1, -1},
        {"4X", "1a", -1, -1},     {"4X", "1.", -1, -1},      {"4X", " 1", -1, -1},
        {"2X", "1", -1, -1},      {"4XX", "1", -1, -1},      {"", "1", -1, -1},
        {nullptr, "1", -1, -1},   {"4X", nullptr, -1, -1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.reg ? row.reg : "null") + " " + (row.addr ? row.addr : "null"));
        int index = -1;
        EXPECT_EQ(d.checkAddr(row.reg, row.addr, &index, 1, 0), row.rc);
        EXPECT_EQ(index, row.index);
    }
    int index = -1;
    EXPECT_EQ(d.checkAddr("4X", "1", nullptr, 1, 0), -1);
    EXPECT_EQ(d.checkAddr("4X", "1", &index, 256, 0), -1);
}

TEST(ModbusPlugin, RefusesValuesItCannotServe)
{
    Driver d(MODBUS_RTU_SO);
    ASSERT_TRUE(d.loaded());
    ASSERT_EQ(d.init(1, 0), 0);
    uint8_t buf[300];
    std::fill(buf, buf + sizeof buf, 0xEE);
    struct Row {
        const char *name, *reg;
        int station, index, count, len;
        bool write;
    } rows[] = {
        {"discrete inputs are read-only", "1X", 1, 0, 1, 1, true},
        {"input registers are read-only", "3X", 1, 0, 1, 2, true},
        {"too short a buffer", "4X", 1, 0, 2, 3, false},
        {"past the last register", "4X", 1, 65535, 2, 4, false},
        {"station out of range", "4X", 256, 0, 1, 2, false},
        {"RTU broadcast", "4X", 0, 0, 1, 2, true},
        {"more registers than one write", "4X", 1, 0, 124, 248, true},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        int rc = row.write ? d.setData(row.station, row.reg, row.index, row.count, buf, row.len)
                           : d.getData(row.station, row.reg, row.index, row.count, buf, row.len);
        EXPECT_EQ(rc, -1);
    }
    EXPECT_EQ(buf[0], 0xEE) << "a refused read leaves the buffer alone";
    EXPECT_EQ(d.getData(1, "4X", 0, 2, buf, 4), 0) << "not polled yet";
    EXPECT_EQ(buf[0] | buf[1] | buf[2] | buf[3], 0);

    FRAME_PRO f{};
    char text[8];
    EXPECT_EQ(d.getSendFrame(&f), 0) << "nothing to poll";
    EXPECT_EQ(d.dealRcvFrame(buf, 5, text, sizeof text), LUMBRA_RESULT_INCOMPLETE) << "nothing was asked";
    EXPECT_EQ(d.merge(nullptr, 3), -1);
    EXPECT_EQ(d.init(1, 0, sizeof(LUMBRA_LINK_INFO) - 1), -1) << "a gateway with a smaller link info";
}

TEST(ModbusPlugin, TwoLoadedCopiesKeepSeparateState)
{
    WorkDir work;
    const std::string a = work.file("libmodbus_1.so").toStdString(), b = work.file("libmodbus_2.so").toStdString();
    std::filesystem::copy_file(MODBUS_RTU_SO, a);
    std::filesystem::copy_file(MODBUS_RTU_SO, b);
    Driver first(a), second(b);
    ASSERT_TRUE(first.loaded() && second.loaded());
    ASSERT_NE(first.getSendFrame, second.getSendFrame);
    ASSERT_EQ(first.init(1, 0), 0);
    ASSERT_EQ(second.init(2, 0), 0);

    KEY_ADDRESS k = key("4X", "3");
    ASSERT_EQ(first.merge(&k, 1), 1);
    ASSERT_EQ(second.setData(1, "0X", 9, 1, reinterpret_cast<const uint8_t *>("\1"), 1), 1);
    FRAME_PRO f1{}, f2{};
    ASSERT_EQ(first.getSendFrame(&f1), 1);
    ASSERT_EQ(second.getSendFrame(&f2), 1);
    EXPECT_EQ(f1.data[1], 3) << "the first copy polls its register";
    EXPECT_EQ(f2.data[1], 5) << "the second copy writes its coil";
}

// Whatever arrives on the line or through the API, the driver answers with a
// result code and keeps polling.
TEST(ModbusPlugin, SurvivesRandomRepliesAndArguments)
{
    for (const char *path : {MODBUS_RTU_SO, MODBUS_TCP_SO}) {
        SCOPED_TRACE(path);
        Driver d(path);
        ASSERT_EQ(d.init(1, 1), 0);
        KEY_ADDRESS keys[3] = {key("4X", "0", 3), key("0X", "10", 20), key("4X", "5.1")};
        std::memset(keys[2].addr, '7', sizeof keys[2].addr);  // no terminator
        ASSERT_EQ(d.merge(keys, 3), 2);
        std::srand(1234);
        uint8_t buf[600];
        char text[2];  // too short for the station
        const char *regs[] = {"0X", "1X", "3X", "4X"};
        for (int i = 0; i < 3000; ++i) {
            std::generate(std::begin(buf), std::end(buf), [] { return static_cast<uint8_t>(std::rand()); });
            FRAME_PRO f{};
            ASSERT_EQ(d.getSendFrame(&f), 1);
            int result = d.dealRcvFrame(buf, std::rand() % (i % 2 ? 12 : sizeof buf), text, sizeof text);
            ASSERT_TRUE(result == LUMBRA_RESULT_INCOMPLETE || result == LUMBRA_RESULT_STATION_FAILED) << result;
            int index = std::rand() % 3 ? std::rand() % 70000 : 0x100000 + std::rand() % 0x110000;
            int count = std::rand() % 140 - 4, room = std::rand() % 300;
            d.getData(std::rand() % 300 - 20, regs[i % 4], index, count, buf, room);
            d.setData(std::rand() % 300 - 20, regs[i % 4], index, count, buf, room);
        }
    }
}
