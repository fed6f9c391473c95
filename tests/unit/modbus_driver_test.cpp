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

    int indexOf(const char *reg, const char *addr) { return d->indexOf(reg, addr); }

    template <typename T>
    int get(const char *reg, const char *addr, int count, T *out, int station = kStation)
    {
        return d->getData(station, reg, indexOf(reg, addr), count, reinterpret_cast<uint8_t *>(out), sizeof(T));
    }

    int quality(const char *addr, int station = kStation)
    {
        uint16_t v = 0;
        int q = -1;
        d->getValue(station, "4X", indexOf("4X", addr), 1, LUMBRA_KIND_16BIT, reinterpret_cast<uint8_t *>(&v),
                    sizeof v, &q);
        return q;
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
    const uint16_t beef = 0xBEEF;
    int ticket = 0;
    ASSERT_EQ(d->setValue(kStation, "4X", 0, 1, LUMBRA_KIND_16BIT, reinterpret_cast<const uint8_t *>(&beef), 2,
                          &ticket), 1);
    ASSERT_EQ(set("4X", "20.3", 1, uint8_t{0}), 1);
    ASSERT_EQ(set("0X", "3", 1, uint8_t{0}), 1);
    ASSERT_EQ(d->setData(kStation, "0X", 100, 3, coils, 3), 1);
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    EXPECT_EQ(d->writeState(ticket, nullptr, 0), LUMBRA_WRITE_DONE);
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
        EXPECT_EQ(quality("0"), LUMBRA_QUALITY_NO_REPLY);
        EXPECT_EQ(quality("100"), LUMBRA_QUALITY_NO_REPLY) << "every block of a station that failed";
        EXPECT_EQ(get("4X", "0", 1, &v), row.retries ? 1 : 0) << "the last good value, if there was one";
        slave->setSilent(false);
        const uint16_t fresh = static_cast<uint16_t>(100 + row.retries);
        slave->setHolding(0, fresh);
        EXPECT_TRUE(pollUntil([&] { return get("4X", "0", 1, &v) == 1 && v == fresh; }, 8));
        EXPECT_EQ(quality("0"), LUMBRA_QUALITY_GOOD);
    }
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
            const int sent = d.getSendFrame(&f);
            ASSERT_TRUE(sent == 1 || sent == LUMBRA_FRAME_NO_REPLY) << sent;
            int result = d.dealRcvFrame(buf, std::rand() % (i % 2 ? 12 : sizeof buf), text, sizeof text);
            if (result == LUMBRA_RESULT_NEED_MORE)
                result = d.dealRcvFrame(nullptr, 0, text, sizeof text);
            ASSERT_TRUE(result == LUMBRA_RESULT_INCOMPLETE || result == LUMBRA_RESULT_STATION_FAILED) << result;
            int index = std::rand() % 3 ? std::rand() % 70000 : 0x100000 + std::rand() % 0x110000;
            int count = std::rand() % 140 - 4, room = std::rand() % 300;
            int kind = std::rand() % 6, ticket = 0;
            d.getValue(std::rand() % 300 - 20, regs[i % 4], index, count, kind, buf, room, &ticket);
            d.setValue(std::rand() % 300 - 20, regs[i % 4], index, count, kind, buf, room, &ticket);
            d.cancelWrite(std::rand() % 300);
            KEY_ADDRESS k = key(regs[i % 4], "", count, std::rand() % 300 - 20);
            k.index = index;
            d.conditionRead(&k, 1);
        }
    }
}
