// The Modbus driver plug-in, loaded as the gateway loads it, against libmodbus
// slaves over a socat pty pair (RTU) and loopback TCP.
#include "modbus_harness.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <tuple>

using namespace modbus_test;

namespace {

constexpr int kStation = 17;
constexpr int kLinkId = 7;

struct Change {
    int link, station;
    std::string reg;
    int index;
    bool operator==(const Change &o) const
    {
        return std::tie(link, station, reg, index) == std::tie(o.link, o.station, o.reg, o.index);
    }
};
std::vector<Change> g_changes;

void recordChange(int link, int station, const char *reg, int index)
{
    g_changes.push_back({link, station, reg, index});
}

int indexOf(Driver &d, const char *reg, const char *addr)
{
    int index = -1;
    return d.checkAddr(reg, addr, &index, kStation, 1) == LUMBRA_ADDR_OK ? index : -1;
}

template <typename T>
int get(Driver &d, const char *reg, const char *addr, int count, T *out)
{
    return d.getData(kStation, reg, indexOf(d, reg, addr), count, reinterpret_cast<uint8_t *>(out), sizeof(T));
}

template <typename T>
int set(Driver &d, const char *reg, const char *addr, int count, const T &value)
{
    return d.setData(kStation, reg, indexOf(d, reg, addr), count, reinterpret_cast<const uint8_t *>(&value),
                     sizeof(T));
}

// Request PDU inside a frame of either framing.
Bytes pduOf(const FRAME_PRO &f, bool tcp)
{
    return tcp ? Bytes(f.data + 7, f.data + f.len) : Bytes(f.data + 1, f.data + f.len - 2);
}

class PeerFixture : public ::testing::Test {
protected:
    void startPeer(bool tcp, int retries = 1)
    {
        m_tcp = tcp;
        d = std::make_unique<Driver>(tcp ? MODBUS_TCP_SO : MODBUS_RTU_SO);
        ASSERT_TRUE(d->loaded());
        if (tcp) {
            slave = Slave::tcp();
            ASSERT_TRUE(slave->ok());
            line = Line::tcp(slave->port());
        } else {
            pty = std::make_unique<PtyPair>(dir.path());
            ASSERT_TRUE(pty->ok());
            slave = Slave::rtu(pty->slave, kStation);
            ASSERT_TRUE(slave->ok());
            line = Line::serial(pty->master);
        }
        ASSERT_TRUE(line->ok());
        ASSERT_EQ(d->init(kLinkId, retries), 0);
        g_changes.clear();
        d->setCallback(recordChange);
    }

    int turn(const std::function<void(Bytes &)> &tamper = {}, FRAME_PRO *sent = nullptr)
    {
        return exchange(*d, *line, tamper, sent);
    }

    bool pollUntil(const std::function<bool()> &done, int maxTurns = 40)
    {
        for (int i = 0; i < maxTurns && !done(); ++i)
            turn();
        return done();
    }

    // Runs exchanges until the driver has nothing left to send; every one
    // must have been answered well.
    void drainWrites()
    {
        int result, turns = 0;
        while ((result = turn()) != 0 && ++turns < 20)
            ASSERT_EQ(result, LUMBRA_RESULT_GOOD);
    }

    void mapRegisters(std::initializer_list<std::pair<int, uint16_t>> regs)
    {
        slave->edit([&](modbus_mapping_t &m) {
            for (auto [a, v] : regs)
                m.tab_registers[a] = v;
        });
    }

    uint16_t slaveRegister(int address)
    {
        uint16_t v = 0;
        slave->edit([&](modbus_mapping_t &m) { v = m.tab_registers[address]; });
        return v;
    }

    bool m_tcp = false;
    TempDir dir;
    std::unique_ptr<PtyPair> pty;
    std::unique_ptr<Slave> slave;
    std::unique_ptr<Line> line;
    std::unique_ptr<Driver> d;
};

class ModbusPeer : public PeerFixture, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override { startPeer(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Framing, ModbusPeer, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "Tcp" : "Rtu"; });

}  // namespace

TEST_P(ModbusPeer, ReadsEveryAreaAndReportsOnlyRealChanges)
{
    mapRegisters({{0, 0x1234}, {10, 0x0001}, {11, 0x0002}, {20, 0x0008}});
    slave->edit([](modbus_mapping_t &m) {
        m.tab_input_registers[5] = 777;
        m.tab_bits[3] = 1;
        m.tab_input_bits[4] = 1;
    });
    KEY_ADDRESS keys[] = {key("4X", "0", kStation),    key("4X", "10", kStation, 2), key("4x", "20.3", kStation),
                          key("3X", "5", kStation),    key("0X", "3", kStation),     key("1X", "4", kStation)};
    ASSERT_GT(d->merge(keys, 6), 0);

    uint16_t word = 0, input = 0;
    uint32_t dword = 0;
    uint8_t bit = 0, coil = 0, discrete = 0;
    auto all = [&] {
        return get(*d, "4X", "0", 1, &word) == 1 && get(*d, "4X", "10", 2, &dword) == 1 &&
               get(*d, "4X", "20.3", 1, &bit) == 1 && get(*d, "3X", "5", 1, &input) == 1 &&
               get(*d, "0X", "3", 1, &coil) == 1 && get(*d, "1X", "4", 1, &discrete) == 1;
    };
    ASSERT_TRUE(pollUntil(all));
    EXPECT_EQ(word, 0x1234);
    EXPECT_EQ(dword, 0x00010002u);
    EXPECT_EQ(bit, 1);
    EXPECT_EQ(input, 777);
    EXPECT_EQ(coil, 1);
    EXPECT_EQ(discrete, 1);
    EXPECT_EQ(g_changes.size(), 6u) << "each address reports its first value once";
    EXPECT_EQ(lastStationText, "17");

    // Bit 0 of register 20 changes beside the watched bit 3: only register 0
    // really changed for its consumers.
    g_changes.clear();
    mapRegisters({{0, 0x4321}, {20, 0x0009}});
    ASSERT_TRUE(pollUntil([&] { return get(*d, "4X", "0", 1, &word) == 1 && word == 0x4321; }));
    for (int i = 0; i < 6; ++i)
        turn();
    EXPECT_EQ(g_changes, (std::vector<Change>{{kLinkId, kStation, "4X", 0}}));
}

TEST_P(ModbusPeer, WritesReachTheDeviceAndReadBack)
{
    mapRegisters({{60, 0x0101}});
    uint8_t coils[3] = {1, 0, 1};
    ASSERT_EQ(set(*d, "4X", "40", 1, uint16_t{0xBEEF}), 1);
    ASSERT_EQ(set(*d, "4X", "50", 2, uint32_t{0x12345678}), 1);
    ASSERT_EQ(d->setData(kStation, "0X", 100, 3, coils, 3), 1);
    ASSERT_EQ(set(*d, "0X", "7", 1, uint8_t{1}), 1);
    ASSERT_EQ(set(*d, "4X", "60.5", 1, uint8_t{1}), 1);
    drainWrites();

    EXPECT_EQ(slaveRegister(40), 0xBEEF);
    EXPECT_EQ(slaveRegister(50), 0x1234);
    EXPECT_EQ(slaveRegister(51), 0x5678);
    EXPECT_EQ(slaveRegister(60), 0x0121) << "the other bits of the word survive";
    slave->edit([](modbus_mapping_t &m) {
        EXPECT_EQ(std::vector<int>(m.tab_bits + 100, m.tab_bits + 103), (std::vector<int>{1, 0, 1}));
        EXPECT_EQ(m.tab_bits[7], 1);
    });

    uint16_t word = 0;
    uint32_t dword = 0;
    uint8_t back[3] = {}, bit = 0;
    EXPECT_EQ(get(*d, "4X", "40", 1, &word), 1);
    EXPECT_EQ(word, 0xBEEF);
    EXPECT_EQ(get(*d, "4X", "50", 2, &dword), 1);
    EXPECT_EQ(dword, 0x12345678u);
    EXPECT_EQ(d->getData(kStation, "0X", 100, 3, back, 3), 1);
    EXPECT_EQ(std::vector<uint8_t>(back, back + 3), std::vector<uint8_t>(coils, coils + 3));
    EXPECT_EQ(get(*d, "4X", "60.5", 1, &bit), 1);
    EXPECT_EQ(bit, 1);

    ASSERT_EQ(d->setProperty("bit_write=mask"), 0);
    ASSERT_EQ(set(*d, "4X", "60.0", 1, uint8_t{0}), 1);
    drainWrites();
    EXPECT_EQ(slaveRegister(60), 0x0120);
    EXPECT_EQ(get(*d, "4X", "60.0", 1, &bit), 1);
    EXPECT_EQ(bit, 0);
}

TEST_P(ModbusPeer, PropertyChoosesWordAndByteOrder)
{
    struct Row {
        const char *property;
        int rc;
        uint32_t read;             // registers 0x1122, 0x3344 as one value
        uint16_t written[2];       // 0xA1B2C3D4 as the device receives it
    } rows[] = {
        {"", 0, 0x11223344, {0xA1B2, 0xC3D4}},
        {"word_order=low_first", 0, 0x33441122, {0xC3D4, 0xA1B2}},
        {"byte_swap=1", 0, 0x22114433, {0xB2A1, 0xD4C3}},
        {" Word_Order = LOW_FIRST ; byte_swap=1; colour=blue", 0, 0x44332211, {0xD4C3, 0xB2A1}},
        {"word_order=sideways", -1, 0x11223344, {0xA1B2, 0xC3D4}},
        {"byte_swap", -1, 0x11223344, {0xA1B2, 0xC3D4}},
    };
    mapRegisters({{0, 0x1122}, {1, 0x3344}});
    KEY_ADDRESS k = key("4X", "0", kStation, 2);
    ASSERT_EQ(d->merge(&k, 1), 1);
    uint32_t v = 0;
    ASSERT_TRUE(pollUntil([&] { return get(*d, "4X", "0", 2, &v) == 1; }));
    for (const Row &row : rows) {
        SCOPED_TRACE(row.property);
        ASSERT_EQ(d->setProperty(row.property), row.rc);
        ASSERT_EQ(get(*d, "4X", "0", 2, &v), 1);
        EXPECT_EQ(v, row.read);
        ASSERT_EQ(set(*d, "4X", "70", 2, uint32_t{0xA1B2C3D4}), 1);
        ASSERT_TRUE(pollUntil([&] { return slaveRegister(70) == row.written[0]; }, 4));
        EXPECT_EQ(slaveRegister(71), row.written[1]);
    }
}

TEST_P(ModbusPeer, DamagedRepliesFailOnlyTheirExchange)
{
    const bool tcp = GetParam();
    const size_t fcAt = tcp ? 7 : 1, stationAt = tcp ? 6 : 0;
    auto fixCrc = [tcp](Bytes &r) {
        if (tcp || r.size() < 3)
            return;
        uint16_t crc = crc16(r.data(), r.size() - 2);
        r[r.size() - 2] = static_cast<uint8_t>(crc);
        r[r.size() - 1] = static_cast<uint8_t>(crc >> 8);
    };
    struct Row {
        const char *name;
        std::function<void(Bytes &)> tamper;
    } rows[] = {
        {"timed out", [](Bytes &r) { r.clear(); }},
        {"truncated", [](Bytes &r) { r.pop_back(); }},
        {"trailing byte", [&](Bytes &r) { r.push_back(0); fixCrc(r); }},
        {"garbage", [](Bytes &r) { std::fill(r.begin(), r.end(), 0x5A); }},
        {"checksum or transaction id", [tcp](Bytes &r) { r[tcp ? 1 : r.size() - 1] ^= 0x01; }},
        {"other station", [&](Bytes &r) { r[stationAt] ^= 0x01; fixCrc(r); }},
        {"other function", [&](Bytes &r) { r[fcAt] = 4; fixCrc(r); }},
        {"short byte count", [&](Bytes &r) { r[fcAt + 1] -= 2; fixCrc(r); }},
    };
    mapRegisters({{0, 4242}, {200, 4343}});
    KEY_ADDRESS keys[] = {key("4X", "0", kStation), key("4X", "200", kStation)};
    ASSERT_EQ(d->merge(keys, 2), 2);
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        FRAME_PRO failed{}, retried{};
        ASSERT_EQ(turn(row.tamper, &failed), LUMBRA_RESULT_INCOMPLETE);
        ASSERT_EQ(turn({}, &retried), LUMBRA_RESULT_GOOD);
        EXPECT_EQ(pduOf(failed, tcp), pduOf(retried, tcp)) << "the failed request goes out again";
    }
    uint16_t a = 0, b = 0;
    EXPECT_EQ(get(*d, "4X", "0", 1, &a), 1);
    EXPECT_EQ(get(*d, "4X", "200", 1, &b), 1);
    EXPECT_EQ(a + b, 4242 + 4343);
}

TEST_P(ModbusPeer, SilentStationFailsAfterItsRetriesAndRecovers)
{
    struct Row {
        int retries;
        std::vector<int> results;
    } rows[] = {{0, {2}}, {2, {3, 3, 2}}};
    KEY_ADDRESS k = key("4X", "0", kStation);
    ASSERT_EQ(d->merge(&k, 1), 1);
    uint16_t v = 0;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.retries);
        ASSERT_EQ(d->init(kLinkId, row.retries), 0);
        uint16_t fresh = static_cast<uint16_t>(100 + row.retries);
        ASSERT_TRUE(pollUntil([&] { return get(*d, "4X", "0", 1, &v) == 1; }));
        slave->setSilent(true);
        std::vector<int> results;
        for (size_t i = 0; i < row.results.size(); ++i)
            results.push_back(turn());
        EXPECT_EQ(results, row.results);
        EXPECT_NE(turn(), 0) << "a failed station is asked again";
        slave->setSilent(false);
        mapRegisters({{0, fresh}});
        EXPECT_TRUE(pollUntil([&] { return get(*d, "4X", "0", 1, &v) == 1 && v == fresh; }, 8));
    }
}

TEST_P(ModbusPeer, ExceptionRepliesKeepLastValuesAndPollingGoesOn)
{
    mapRegisters({{0, 11}, {250, 99}});
    KEY_ADDRESS keys[] = {key("4X", "0", kStation), key("4X", "250", kStation), key("4X", "299", kStation, 2)};
    ASSERT_EQ(d->merge(keys, 3), 3);
    uint16_t v = 0;
    uint32_t beyond = 0xFFFFFFFF;
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(turn(), LUMBRA_RESULT_GOOD) << "an exception is an answer";
    EXPECT_EQ(get(*d, "4X", "299", 2, &beyond), 0);
    EXPECT_EQ(beyond, 0u);
    ASSERT_EQ(get(*d, "4X", "250", 1, &v), 1);

    // The device shrinks its map: the block it no longer serves keeps the
    // value it last had, and the write it refuses is not retried.
    slave->edit([](modbus_mapping_t &m) { m.nb_registers = 200; });
    mapRegisters({{0, 12}, {250, 98}});
    ASSERT_EQ(set(*d, "4X", "260", 1, uint16_t{5}), 1);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(turn(), LUMBRA_RESULT_GOOD);
    slave->edit([](modbus_mapping_t &m) { m.nb_registers = 300; });
    EXPECT_EQ(get(*d, "4X", "250", 1, &v), 1);
    EXPECT_EQ(v, 99);
    EXPECT_EQ(get(*d, "4X", "0", 1, &v), 1);
    EXPECT_EQ(v, 12);
    EXPECT_EQ(slaveRegister(260), 0);
}

class ModbusTcp : public PeerFixture {
protected:
    void SetUp() override { startPeer(true, 0); }
};

TEST_F(ModbusTcp, FailedStationSitsOutTheRestOfTheRound)
{
    KEY_ADDRESS keys[] = {key("4X", "0", kStation), key("4X", "100", kStation), key("4X", "0", 18)};
    ASSERT_EQ(d->merge(keys, 3), 3);
    slave->setSilent(true, kStation);
    std::vector<std::pair<int, int>> seen;  // station, result
    for (int i = 0; i < 4; ++i) {
        FRAME_PRO f{};
        int result = turn({}, &f);
        seen.push_back({f.data[6], result});
    }
    // Station 17's second block is skipped after its first failed; the next
    // round gives it another chance.
    EXPECT_EQ(seen, (std::vector<std::pair<int, int>>{{17, 2}, {18, 1}, {17, 2}, {18, 1}}));
}

TEST_F(ModbusTcp, BlocksRespectRequestLimitsAndTheGapRule)
{
    using Block = std::tuple<int, int, int, int>;  // station, function, start, quantity
    auto coils = [](int n) {
        std::vector<KEY_ADDRESS> keys;
        for (int i = 0; i < n; ++i)
            keys.push_back(key("0X", std::to_string(i).c_str(), kStation));
        return keys;
    };
    struct Row {
        const char *name;
        std::vector<KEY_ADDRESS> keys;
        const char *property;
        std::set<Block> blocks;
    } rows[] = {
        {"126 registers", {key("4X", "0", kStation, 126)}, "", {{17, 3, 0, 125}, {17, 3, 125, 1}}},
        {"2001 coils", coils(2001), "", {{17, 1, 0, 2000}, {17, 1, 2000, 1}}},
        {"gap of 8 bridged", {key("4X", "0", kStation), key("4X", "9", kStation)}, "", {{17, 3, 0, 10}}},
        {"gap of 9 not", {key("4X", "0", kStation), key("4X", "10", kStation)}, "", {{17, 3, 0, 1}, {17, 3, 10, 1}}},
        {"bit gap of 32 bridged", {key("1X", "0", kStation), key("1X", "33", kStation)}, "", {{17, 2, 0, 34}}},
        {"no gaps wanted",
         {key("4X", "0", kStation), key("4X", "1", kStation), key("4X", "3", kStation)},
         "max_gap=0",
         {{17, 3, 0, 2}, {17, 3, 3, 1}}},
        {"smaller requests", {key("4X", "0", kStation, 25)}, "max_regs=10", {{17, 3, 0, 10}, {17, 3, 10, 10}, {17, 3, 20, 5}}},
        {"stations and areas apart",
         {key("4X", "0", kStation), key("4X", "0", 18), key("3X", "0", kStation), key("0x", "0", kStation)},
         "",
         {{17, 3, 0, 1}, {18, 3, 0, 1}, {17, 4, 0, 1}, {17, 1, 0, 1}}},
        {"bit of word, 32-bit and duplicates",
         {key("4X", "10.3", kStation), key("4X", "11", kStation, 2), key("4X", "11", kStation, 2)},
         "",
         {{17, 3, 10, 3}}},
    };
    for (Row &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(d->setProperty(row.property), 0);
        int n = d->merge(row.keys.data(), static_cast<int>(row.keys.size()));
        ASSERT_EQ(n, static_cast<int>(row.blocks.size()));
        std::set<Block> seen;
        for (int i = 0; i < n; ++i) {
            FRAME_PRO f{};
            EXPECT_EQ(turn({}, &f), LUMBRA_RESULT_GOOD);
            seen.insert({f.data[6], f.data[7], f.data[8] << 8 | f.data[9], f.data[10] << 8 | f.data[11]});
        }
        EXPECT_EQ(seen, row.blocks);
    }
}

TEST(ModbusPlugin, MergeReplacesThePollSet)
{
    Driver d(MODBUS_RTU_SO);
    ASSERT_TRUE(d.loaded());
    ASSERT_EQ(d.init(1, 0), 0);
    auto startOfNext = [&] {
        FRAME_PRO f{};
        if (!d.getSendFrame(&f))
            return -1;
        d.dealRcvFrame(nullptr, 0, nullptr, 0);
        return f.data[2] << 8 | f.data[3];
    };
    KEY_ADDRESS first = key("4X", "0", 1), second = key("4X", "7", 1);
    KEY_ADDRESS unusable[] = {key("2X", "1", 1), key("4X", "abc", 1), key("4X", "1", 0), key("4X", "65535", 1, 2)};
    ASSERT_EQ(d.merge(&first, 1), 1);
    EXPECT_EQ(startOfNext(), 0);
    ASSERT_EQ(d.merge(&second, 1), 1);
    EXPECT_EQ(startOfNext(), 7);
    EXPECT_EQ(startOfNext(), 7);
    EXPECT_EQ(d.merge(unusable, 4), 0);
    EXPECT_EQ(startOfNext(), -1);
    EXPECT_EQ(d.merge(nullptr, 0), 0);
    EXPECT_EQ(d.merge(nullptr, 3), -1);
}

TEST(ModbusPlugin, AddressGrammarAndIndexes)
{
    Driver d(MODBUS_RTU_SO);
    ASSERT_TRUE(d.loaded());
    struct Row {
        const char *reg, *addr;
        int rc, index;
    } rows[] = {
        {"4X", "0", 0, 0},           {"4x", "65535", 0, 65535},  {"4X", "100.3", 0, 0x100000 + 1603},
        {"3X", "7.15", 0, 0x100000 + 127}, {"0X", "5", 0, 5},   {"1x", "0009", 0, 9},
        {"0X", "5.0", 4, -1},        {"1X", "5.3", 4, -1},       {"4X", "65536", -1, -1},
        {"4X", "100.16", -1, -1},    {"4X", "-1", -1, -1},       {"4X", "", -1, -1},
        {"4X", "1a", -1, -1},        {"4X", "1.", -1, -1},       {"4X", " 1", -1, -1},
        {"2X", "1", -1, -1},         {"4XX", "1", -1, -1},       {"", "1", -1, -1},
        {nullptr, "1", -1, -1},      {"4X", nullptr, -1, -1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.reg ? row.reg : "null") + " " + (row.addr ? row.addr : "null"));
        int index = -1;
        EXPECT_EQ(d.checkAddr(row.reg, row.addr, &index, 1, 0), row.rc);
        EXPECT_EQ(index, row.index);
    }
    EXPECT_EQ(d.checkAddr("4X", "1", nullptr, 1, 0), -1);
    EXPECT_EQ(d.checkAddr("4X", "1", &rows[0].index, 256, 0), -1);
}

TEST(ModbusPlugin, RefusesValuesItCannotServe)
{
    Driver d(MODBUS_RTU_SO);
    ASSERT_TRUE(d.loaded());
    ASSERT_EQ(d.init(1, 0), 0);
    uint8_t buf[300] = {};
    std::fill(buf, buf + sizeof buf, 0xEE);
    struct Row {
        const char *name, *reg;
        int station, index, count, len;
        bool write;
    } rows[] = {
        {"discrete inputs are read-only", "1X", 1, 0, 1, 1, true},
        {"input registers are read-only", "3X", 1, 0, 1, 2, true},
        {"too short a buffer", "4X", 1, 0, 2, 3, false},
        {"no count", "4X", 1, 0, 0, 2, false},
        {"past the last register", "4X", 1, 65535, 2, 4, false},
        {"bit index in a bit area", "0X", 1, 0x100000, 1, 1, false},
        {"index beyond any encoding", "4X", 1, 0x200000, 1, 1, false},
        {"negative index", "4X", 1, -5, 1, 2, false},
        {"two bits of a word", "4X", 1, 0x100000, 2, 2, false},
        {"unknown register", "5X", 1, 0, 1, 2, false},
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
    EXPECT_EQ(d.getData(1, "4X", 0, 2, nullptr, 4), -1);
    EXPECT_EQ(d.getData(1, "4X", 0, 2, buf, 4), 0) << "not polled yet";
    EXPECT_EQ(buf[0] | buf[1] | buf[2] | buf[3], 0);

    FRAME_PRO f{};
    char text[8];
    EXPECT_EQ(d.getSendFrame(nullptr), 0);
    EXPECT_EQ(d.getSendFrame(&f), 0);
    EXPECT_EQ(d.dealRcvFrame(buf, 5, text, sizeof text), LUMBRA_RESULT_INCOMPLETE) << "nothing was asked";
    int small = sizeof(LUMBRA_LINK_INFO) - 1;
    LUMBRA_LINK_INFO info{};
    info.abi_version = LUMBRA_DRIVER_ABI_VERSION;
    EXPECT_EQ(d.initProperty(reinterpret_cast<unsigned char *>(&info), nullptr, nullptr, &small, nullptr, nullptr), -1);
    EXPECT_EQ(d.initProperty(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
}

TEST(ModbusPlugin, TwoLoadedCopiesKeepSeparateState)
{
    TempDir dir;
    std::string a = dir.path() + "/libmodbus_1.so", b = dir.path() + "/libmodbus_2.so";
    std::filesystem::copy_file(MODBUS_RTU_SO, a);
    std::filesystem::copy_file(MODBUS_RTU_SO, b);
    Driver first(a), second(b);
    ASSERT_TRUE(first.loaded() && second.loaded());
    ASSERT_NE(first.getSendFrame, second.getSendFrame);
    ASSERT_EQ(first.init(1, 0), 0);
    ASSERT_EQ(second.init(2, 0), 0);

    KEY_ADDRESS k = key("4X", "3", 1);
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
        ASSERT_TRUE(d.loaded());
        ASSERT_EQ(d.init(1, 1), 0);
        KEY_ADDRESS keys[3] = {key("4X", "0", 1, 3), key("0X", "10", 1, 20), key("4X", "5.1", 1)};
        std::memset(keys[2].addr, '7', sizeof keys[2].addr);  // no terminator
        ASSERT_EQ(d.merge(keys, 3), 2);
        std::srand(1234);
        uint8_t buf[600];
        char text[4];
        for (int i = 0; i < 3000; ++i) {
            for (uint8_t &b : buf)
                b = static_cast<uint8_t>(std::rand());
            FRAME_PRO f{};
            ASSERT_EQ(d.getSendFrame(&f), 1);
            int len = std::rand() % 2 ? std::rand() % 12 : std::rand() % sizeof buf;
            int result = d.dealRcvFrame(buf, len, text, sizeof text);
            ASSERT_TRUE(result == LUMBRA_RESULT_INCOMPLETE || result == LUMBRA_RESULT_STATION_FAILED) << result;
            const char *regs[] = {"0X", "1X", "3X", "4X"};
            int index = std::rand() % 3 ? std::rand() % 70000 : 0x100000 + std::rand() % 0x110000;
            int count = std::rand() % 140 - 4, room = std::rand() % 300;
            d.getData(std::rand() % 300 - 20, regs[i % 4], index, count, buf, room);
            d.setData(std::rand() % 300 - 20, regs[i % 4], index, count, buf, room);
        }
    }
}
