// The Modbus driver's side of values: address texts, value kinds, byte and
// word orders, and which function writes a value. The device is the one in
// the test process.
#include "modbus_harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using namespace modbus_test;

namespace {

// A TCP driver loaded fresh for the options, and the device it talks to.
struct Bench {
    explicit Bench(const LinkOptions &o = {}, const char *property = "") : d(MODBUS_TCP_SO)
    {
        logLines.clear();
        d.setLogCallback(keepLogLine);
        ok = d.init(o) == 0 && d.setProperty(property) == 0;
    }
    int turn() { return exchange(d, dev); }

    template <typename T>
    int get(const char *addr, int count, int kind, T *out, int station = kStation)
    {
        int quality = -1;
        return d.getValue(station, "4X", d.indexOf("4X", addr), count, kind, reinterpret_cast<uint8_t *>(out),
                          sizeof(T), &quality);
    }

    template <typename T>
    int set(const char *reg, const char *addr, int count, int kind, const T &value, int station = kStation)
    {
        int ticket = 0;
        return d.setValue(station, reg, d.indexOf(reg, addr), count, kind, reinterpret_cast<const uint8_t *>(&value),
                          sizeof(T), &ticket);
    }

    Driver d;
    FakeDevice dev;
    bool ok = false;
};

template <size_t N>
std::string text(const char (&chars)[N])
{
    return std::string(chars, N);
}

}  // namespace

TEST(ModbusValues, ByteOrderCodesApplyByKind)
{
    struct Row {
        int code;
        uint32_t dword;         // registers 0x1122 0x3344
        uint16_t word;          // register 0x1234
        const char *string;     // registers 0x4142 0x4344
        uint16_t floatRegs[2];  // -2.5f as the device keeps it
        uint16_t textRegs[2];   // "WXYZ" as the device keeps it
    } rows[] = {
        {0, 0x11223344, 0x1234, "ABCD", {0xC020, 0x0000}, {0x5758, 0x595A}},
        {1, 0x33441122, 0x1234, "ABCD", {0x0000, 0xC020}, {0x5758, 0x595A}},
        {2, 0x22114433, 0x3412, "ABCD", {0x20C0, 0x0000}, {0x5758, 0x595A}},
        {3, 0x44332211, 0x3412, "ABCD", {0x0000, 0x20C0}, {0x5758, 0x595A}},
        {4, 0x11223344, 0x1234, "BADC", {0xC020, 0x0000}, {0x5857, 0x5A59}},
        {7, 0x44332211, 0x3412, "BADC", {0x0000, 0x20C0}, {0x5857, 0x5A59}},
        {8 + 1, 0x33441122, 0x1234, "ABCD", {0x0000, 0xC020}, {0x5758, 0x595A}},  // other bits ignored
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.code);
        LinkOptions o;
        o.dataConver = row.code;
        Bench b(o);
        ASSERT_TRUE(b.ok);
        b.dev.holding = {{0, 0x1122}, {1, 0x3344}, {2, 0x1234}, {3, 0x4142}, {4, 0x4344}, {10, 0}, {11, 0},
                         {20, 0}, {21, 0}};
        KEY_ADDRESS k = key("4X", "0", 5);
        ASSERT_EQ(b.d.merge(&k, 1), 1);
        ASSERT_EQ(b.turn(), LUMBRA_RESULT_GOOD);
        uint32_t dword = 0, raw = 0;
        uint16_t word = 0;
        char string[4] = {};
        ASSERT_EQ(b.get("0", 2, LUMBRA_KIND_32BIT, &dword) + b.get("2", 1, LUMBRA_KIND_16BIT, &word), 2);
        ASSERT_EQ(b.get("3", 2, LUMBRA_KIND_STRING, &string) + b.get("0", 2, LUMBRA_KIND_RAW, &raw), 2);
        EXPECT_EQ(std::make_tuple(dword, word, text(string)),
                  std::make_tuple(row.dword, row.word, std::string(row.string)));
        EXPECT_EQ(raw, dword) << "the first ABI's two-register layout is a 32-bit value";

        const float f = -2.5f;
        const char wxyz[4] = {'W', 'X', 'Y', 'Z'};
        ASSERT_EQ(b.set("4X", "10", 2, LUMBRA_KIND_32BIT, f) + b.set("4X", "20", 2, LUMBRA_KIND_STRING, wxyz), 2);
        ASSERT_EQ(b.turn() + b.turn(), 2 * LUMBRA_RESULT_GOOD);
        EXPECT_EQ(std::vector<uint16_t>({b.dev.holding[10], b.dev.holding[11], b.dev.holding[20], b.dev.holding[21]}),
                  std::vector<uint16_t>({row.floatRegs[0], row.floatRegs[1], row.textRegs[0], row.textRegs[1]}));
        float back = 0;
        EXPECT_EQ(b.get("10", 2, LUMBRA_KIND_32BIT, &back), 1);
        EXPECT_EQ(back, f);
    }
}

TEST(ModbusValues, StationCodesWinOverTheLinkAndItsProperty)
{
    struct Row {
        int linkCode;
        const char *stationCodes, *property;
        int station;
        uint32_t dword;  // registers 0x1122 0x3344
    } rows[] = {
        {0, "18:3", "", 18, 0x44332211},
        {0, "18:3", "", 17, 0x11223344},
        {2, "", "word_order=low_first", 17, 0x44332211},
        {1, "", "byte_swap=1", 17, 0x44332211},
        {3, "", "word_order=high_first;byte_swap=0", 17, 0x11223344},
        {2, "17:0", "word_order=low_first", 17, 0x11223344},
        {0, "x:1, 17:1;; 5", "", 17, 0x33441122},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.stationCodes) + " / " + row.property);
        LinkOptions o;
        o.dataConver = row.linkCode;
        o.stationConver = row.stationCodes;
        Bench b(o, row.property);
        ASSERT_TRUE(b.ok);
        b.dev.unit = row.station;
        b.dev.holding = {{0, 0x1122}, {1, 0x3344}};
        KEY_ADDRESS k = key("4X", "0", 2, row.station);
        ASSERT_EQ(b.d.merge(&k, 1), 1);
        ASSERT_EQ(b.turn(), LUMBRA_RESULT_GOOD);
        uint32_t v = 0;
        ASSERT_EQ(b.get("0", 2, LUMBRA_KIND_32BIT, &v, row.station), 1);
        EXPECT_EQ(v, row.dword);
    }
    EXPECT_EQ(logCount("\"x:1\" is not station:code"), 1);
    EXPECT_EQ(logCount("\"5\" is not station:code"), 1);
}

TEST(ModbusValues, AddressModeAndStepMapNumbersToRegisters)
{
    struct Row {
        int mode, step;
        const char *reg, *addr;
        int index;
    } rows[] = {
        {0, 0, "4X", "0", 0},        {1, 0, "4X", "1", 0},          {1, 0, "4X", "0", -1},
        {1, 1, "4X", "65536", 65535}, {1, 0, "4X", "65537", -1},     {0, 2, "4X", "4", 2},
        {0, 2, "4X", "5", -1},       {1, 2, "4X", "3", 1},          {1, 2, "4X", "2", -1},
        {1, 2, "4X", "3.4", 0x100000 + 16 + 4}, {1, 16, "0X", "17", 1}, {0, 16, "4X", "1048560", 65535},
        {7, 0, "4X", "0", 0},        {0, 17, "4X", "2", 2},         {0, -3, "4X", "2", 2},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::to_string(row.mode) + "/" + std::to_string(row.step) + " " + row.addr);
        LinkOptions o;
        o.addressMode = row.mode;
        o.addressStep = row.step;
        Bench b(o);
        ASSERT_TRUE(b.ok);
        EXPECT_EQ(b.d.indexOf(row.reg, row.addr), row.index);
        bool odd = row.mode > 1 || row.step > 16 || row.step < 0;
        EXPECT_EQ(logLines.size(), odd ? 1u : 0u);
    }

    // Polls, and log lines, speak the same numbers as the configuration.
    LinkOptions o;
    o.addressMode = 1;
    Bench b(o);
    b.dev.exception = 3;
    KEY_ADDRESS k = key("4X", "101", 2);
    ASSERT_EQ(b.d.merge(&k, 1), 1);
    ASSERT_EQ(b.turn(), LUMBRA_RESULT_GOOD);
    EXPECT_EQ((b.dev.requests.back()[1] << 8) | b.dev.requests.back()[2], 100);
    EXPECT_EQ(logCount("station 17 4X 101-102: exception 3"), 1);
}

TEST(ModbusValues, AddressGrammar)
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

TEST(ModbusValues, RefusesValuesItCannotServe)
{
    Driver d(MODBUS_RTU_SO);
    ASSERT_EQ(d.init(LinkOptions{}), 0);
    uint8_t buf[300];
    std::fill(buf, buf + sizeof buf, 0xEE);
    struct Row {
        const char *name, *reg;
        int station, index, count, len, kind;
        bool write;
    } rows[] = {
        {"discrete inputs are read-only", "1X", 1, 0, 1, 1, LUMBRA_KIND_RAW, true},
        {"input registers are read-only", "3X", 1, 0, 1, 2, LUMBRA_KIND_RAW, true},
        {"too short a buffer", "4X", 1, 0, 2, 3, LUMBRA_KIND_RAW, false},
        {"past the last register", "4X", 1, 65535, 2, 4, LUMBRA_KIND_RAW, false},
        {"station out of range", "4X", 256, 0, 1, 2, LUMBRA_KIND_RAW, false},
        {"RTU station 0 is never read", "4X", 0, 0, 1, 2, LUMBRA_KIND_RAW, false},
        {"more registers than one write", "4X", 1, 0, 124, 248, LUMBRA_KIND_RAW, true},
        {"a 32-bit value is two registers", "4X", 1, 0, 1, 4, LUMBRA_KIND_32BIT, false},
        {"a 16-bit value is one", "4X", 1, 0, 2, 4, LUMBRA_KIND_16BIT, false},
        {"no numbers in bit areas", "0X", 1, 0, 1, 2, LUMBRA_KIND_16BIT, false},
        {"a string of coils", "0X", 1, 0, 2, 4, LUMBRA_KIND_STRING, true},
        {"a whole word is not a bit", "4X", 1, 0, 1, 1, LUMBRA_KIND_BIT, false},
        {"unknown kind", "4X", 1, 0, 1, 2, 9, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        int rc = row.write ? d.setValue(row.station, row.reg, row.index, row.count, row.kind, buf, row.len, nullptr)
                           : d.getValue(row.station, row.reg, row.index, row.count, row.kind, buf, row.len, nullptr);
        EXPECT_EQ(rc, -1);
    }
    EXPECT_EQ(buf[0], 0xEE) << "a refused read leaves the buffer alone";
    int quality = -1;
    EXPECT_EQ(d.getValue(1, "4X", 0, 2, LUMBRA_KIND_32BIT, buf, 4, &quality), 0) << "not polled yet";
    EXPECT_EQ(buf[0] | buf[1] | buf[2] | buf[3], 0);
    EXPECT_EQ(quality, LUMBRA_QUALITY_NOT_READ);

    FRAME_PRO f{};
    char text[8];
    EXPECT_EQ(d.getSendFrame(&f), 0) << "nothing to poll";
    EXPECT_EQ(d.dealRcvFrame(buf, 5, text, sizeof text), LUMBRA_RESULT_INCOMPLETE) << "nothing was asked";
    EXPECT_EQ(d.merge(nullptr, 3), -1);
    EXPECT_EQ(d.init(LinkOptions{}, sizeof(LUMBRA_LINK_INFO) - 1), -1) << "a gateway with a smaller link info";
    LinkOptions noVersion;
    noVersion.abi = 0;
    EXPECT_EQ(d.init(noVersion), -1);
}

TEST(ModbusValues, SingleValuesAreWrittenWithFc6UnlessTheLinkAsksFor16)
{
    struct Row {
        const char *property, *reg, *addr;
        std::vector<int> functions;
    } rows[] = {
        {"", "4X", "3", {6}},
        {"", "0X", "3", {5}},
        {"", "4X", "3.2", {3, 6}},
        {"fc16_only=1", "4X", "3", {16}},
        {"fc16_only=1", "0X", "3", {15}},
        {"fc16_only=1", "4X", "3.2", {3, 16}},
        {"fc16_stations=2, 17", "4X", "3", {16}},
        {"fc16_stations=18", "4X", "3", {6}},
        {"bit_write=mask;fc16_only=1", "4X", "3.2", {22}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.property) + " " + row.reg + " " + row.addr);
        Bench b({}, row.property);
        ASSERT_TRUE(b.ok);
        b.dev.setRange(0, 4, 0x1000);
        b.dev.coils[3] = false;
        const bool bit = std::strchr(row.addr, '.') || row.reg[0] == '0';
        ASSERT_EQ(bit ? b.set(row.reg, row.addr, 1, LUMBRA_KIND_BIT, uint8_t{1})
                      : b.set(row.reg, row.addr, 1, LUMBRA_KIND_16BIT, uint16_t{0x1234}),
                  1);
        for (size_t i = 0; i < row.functions.size(); ++i)
            ASSERT_EQ(b.turn(), LUMBRA_RESULT_GOOD);
        std::vector<int> functions;
        for (const Bytes &pdu : b.dev.requests)
            functions.push_back(pdu[0]);
        EXPECT_EQ(functions, row.functions);
        const int written = row.reg[0] == '0' ? b.dev.coils[3] : b.dev.holding[3];
        EXPECT_EQ(written, row.reg[0] == '0' ? 1 : bit ? 0x1004 : 0x1234);
    }
    Bench bad({}, "fc16_stations=two");
    EXPECT_FALSE(bad.ok);
}
