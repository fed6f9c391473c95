// The Modbus driver against a device inside the test process, which lets a
// test cut, garble and refuse replies byte by byte: framing, exceptions,
// hole splits, write outcomes and reads asked for once.
#include "modbus_harness.h"

#include <gtest/gtest.h>

#include <set>
#include <tuple>

using namespace modbus_test;

namespace {

using Request = std::tuple<int, int, int>;  // function, start, quantity

Request requestOf(const Bytes &pdu)
{
    return {pdu[0], pdu[1] << 8 | pdu[2], pdu.size() >= 5 ? pdu[3] << 8 | pdu[4] : 0};
}

// The driver of one framing (RTU false, TCP true) with a fresh state for
// every load, and the device it talks to.
class Framed : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        tcp = GetParam();
        dev.tcp = tcp;
        load({});
    }

    void load(const LinkOptions &o)
    {
        d.reset();
        d = std::make_unique<Driver>(tcp ? MODBUS_TCP_SO : MODBUS_RTU_SO);
        ASSERT_TRUE(d->loaded());
        logLines.clear();
        d->setLogCallback(keepLogLine);
        ASSERT_EQ(d->init(o), 0);
    }

    // A fresh device of n holding registers at v, and a driver loaded for it.
    void fresh(int n, uint16_t v = 0, const LinkOptions &o = {})
    {
        dev = FakeDevice();
        dev.tcp = tcp;
        dev.setRange(0, n, v);
        load(o);
    }

    int turn(const std::function<void(Bytes &)> &tamper = {}) { return exchange(*d, dev, tamper); }

    // {driver result, quality, value} of one holding register.
    std::tuple<int, int, int> read16(const char *addr, int station = kStation)
    {
        uint16_t v = 0;
        int quality = -1;
        int rc = d->getValue(station, "4X", d->indexOf("4X", addr), 1, LUMBRA_KIND_16BIT,
                             reinterpret_cast<uint8_t *>(&v), sizeof v, &quality);
        return {rc, quality, v};
    }

    int write16(const char *addr, uint16_t v, int station = kStation)
    {
        int ticket = 0;
        int rc = d->setValue(station, "4X", d->indexOf("4X", addr), 1, LUMBRA_KIND_16BIT,
                             reinterpret_cast<const uint8_t *>(&v), sizeof v, &ticket);
        return rc == 1 ? ticket : -1;
    }

    // The requests the device got, in order.
    std::vector<Request> asked() const
    {
        std::vector<Request> all;
        for (const Bytes &pdu : dev.requests)
            all.push_back(requestOf(pdu));
        return all;
    }

    std::pair<int, std::string> state(int ticket)
    {
        char text[80] = {};
        int s = d->writeState(ticket, text, sizeof text);
        return {s, text};
    }

    bool tcp = false;
    FakeDevice dev;
    std::unique_ptr<Driver> d;
};

auto framingName = [](const auto &info) { return info.param ? "Tcp" : "Rtu"; };
INSTANTIATE_TEST_SUITE_P(Framing, Framed, ::testing::Values(false, true), framingName);

}  // namespace

TEST_P(Framed, ReplyInPiecesIsAssembledWhereverItIsCut)
{
    dev.setRange(0, 10);
    KEY_ADDRESS k = key("4X", "0", 10);
    ASSERT_EQ(d->merge(&k, 1), 1);
    FRAME_PRO f{};
    for (size_t cut = 1;; ++cut) {
        dev.holding[9] = static_cast<uint16_t>(cut);
        ASSERT_EQ(d->getSendFrame(&f), 1);
        const Bytes reply = dev.answer(f);
        if (cut >= reply.size())
            break;
        SCOPED_TRACE(cut);
        EXPECT_EQ(deal(*d, Bytes(reply.begin(), reply.begin() + cut)), LUMBRA_RESULT_NEED_MORE);
        ASSERT_EQ(deal(*d, reply), LUMBRA_RESULT_GOOD);
        EXPECT_EQ(read16("9"), std::make_tuple(1, LUMBRA_QUALITY_GOOD, static_cast<int>(cut)));
    }
    EXPECT_TRUE(logLines.empty()) << logLines.front();

    // One byte per read after line noise, as a slow converter hands it on:
    // the noise is reported once, whole.
    deal(*d, {});
    ASSERT_EQ(d->getSendFrame(&f), 1);
    Bytes reply = dev.answer(f);
    reply.insert(reply.begin(), {0x00, 0xFF});
    std::vector<int> results, expected(reply.size() - 1, LUMBRA_RESULT_NEED_MORE);
    expected.push_back(LUMBRA_RESULT_GOOD);
    for (size_t n = 1; n <= reply.size(); ++n)
        results.push_back(deal(*d, Bytes(reply.begin(), reply.begin() + n)));
    EXPECT_EQ(results, expected);
    EXPECT_EQ(logLines, std::vector<std::string>{tcp ? "2 bytes of garbage where a reply header was due; skipped"
                                                     : "2 bytes of noise before the reply of station 17"});
}

TEST_P(Framed, DamagedRepliesFailOnlyTheirExchange)
{
    struct Row {
        const char *name;
        std::function<void(Bytes &)> tamper;
        int first;           // the result for the whole buffer; NEED_MORE is followed by the time-out
        const char *logged;  // a line the fault leaves
    };
    auto prepend = [](Bytes head) { return [head](Bytes &r) { r.insert(r.begin(), head.begin(), head.end()); }; };
    auto stale = [](Bytes &r) {
        Bytes old = r;
        old[1] ^= 0x01;
        old[9] = 0xDE;  // a value this reply does not carry
        r.insert(r.begin(), old.begin(), old.end());
    };
    const std::vector<Row> tcpRows = {
        {"late reply of another transaction first", stale, LUMBRA_RESULT_GOOD, "another transaction"},
        {"garbage first", prepend({0xFF, 0x00, 0x12, 0x34, 0x56}), LUMBRA_RESULT_GOOD, "garbage"},
        {"a long header of another transaction first", prepend({0x99, 0x99, 0, 0, 0, 200, 17}), LUMBRA_RESULT_GOOD, ""},
        {"unit id 255", [](Bytes &r) { r[6] = 255; }, LUMBRA_RESULT_GOOD, "unit id 255"},
        {"length field too large", [](Bytes &r) { r[5] += 4; }, LUMBRA_RESULT_NEED_MORE, "announced 17 bytes, 13"},
        {"length field too small", [](Bytes &r) { r[5] -= 2; }, LUMBRA_RESULT_INCOMPLETE, "wrong length"},
        {"length field impossible", [](Bytes &r) { r[4] = 0x12; }, LUMBRA_RESULT_NEED_MORE, "no whole frame in 13"},
        {"another function code", [](Bytes &r) { r[7] = 4; }, LUMBRA_RESULT_INCOMPLETE, "wrong function code"},
        {"only another transaction", [](Bytes &r) { r[1] ^= 1; }, LUMBRA_RESULT_NEED_MORE, "another transaction"},
        {"cut short", [](Bytes &r) { r.pop_back(); }, LUMBRA_RESULT_NEED_MORE, "truncated"},
        {"nothing", [](Bytes &r) { r.clear(); }, LUMBRA_RESULT_STATION_FAILED, "does not answer"},
    };
    const std::vector<Row> rtuRows = {
        {"noise first", prepend({0x00, 0xFF, 0x11}), LUMBRA_RESULT_GOOD, "3 bytes of noise"},
        {"noise that starts like the reply", prepend({17, 3, 4, 0}), LUMBRA_RESULT_GOOD, "noise"},
        {"trailing byte", [](Bytes &r) { r.push_back(0); }, LUMBRA_RESULT_GOOD, ""},
        {"bad CRC", [](Bytes &r) { r.back() ^= 1; }, LUMBRA_RESULT_NEED_MORE, "no valid reply in 9 bytes"},
        {"another station", [](Bytes &r) { r[0] ^= 1; reseal(r, false); }, LUMBRA_RESULT_NEED_MORE, "no valid reply"},
        {"another function", [](Bytes &r) { r[1] = 4; reseal(r, false); }, LUMBRA_RESULT_NEED_MORE, "no valid reply"},
        {"short byte count", [](Bytes &r) { r[2] -= 2; reseal(r, false); }, LUMBRA_RESULT_NEED_MORE, "no valid reply"},
        {"cut short", [](Bytes &r) { r.pop_back(); }, LUMBRA_RESULT_NEED_MORE, "no valid reply"},
    };
    for (const Row &row : tcp ? tcpRows : rtuRows) {
        SCOPED_TRACE(row.name);
        LinkOptions o;
        o.retries = row.logged == std::string("does not answer") ? 0 : 1;
        fresh(2, 0x4242, o);
        KEY_ADDRESS k = key("4X", "0", 2);
        ASSERT_EQ(d->merge(&k, 1), 1);
        FRAME_PRO f{};
        ASSERT_EQ(d->getSendFrame(&f), 1);
        Bytes reply = dev.answer(f);
        row.tamper(reply);
        int first = deal(*d, reply);
        EXPECT_EQ(first, row.first);
        if (first == LUMBRA_RESULT_NEED_MORE) {
            EXPECT_EQ(deal(*d, {}), o.retries ? LUMBRA_RESULT_INCOMPLETE : LUMBRA_RESULT_STATION_FAILED);
        }
        if (*row.logged) {
            EXPECT_EQ(logCount(row.logged), 1) << (logLines.empty() ? "no log" : logLines.back());
        } else {
            EXPECT_TRUE(logLines.empty()) << logLines.front();
        }
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
        EXPECT_EQ(requestOf(dev.requests.back()), requestOf(dev.requests.front())) << "the same read again";
        EXPECT_EQ(read16("1"), std::make_tuple(1, LUMBRA_QUALITY_GOOD, 0x4242));
    }
}

TEST_P(Framed, ExceptionRepliesFailTheirBlockAndKeepTheValue)
{
    dev.setRange(0, 2, 11);
    KEY_ADDRESS k = key("4X", "0", 2);
    ASSERT_EQ(d->merge(&k, 1), 1);
    EXPECT_EQ(read16("0"), std::make_tuple(0, LUMBRA_QUALITY_NOT_READ, 0));
    ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    const std::pair<int, const char *> rows[] = {
        {1, "exception 1 (illegal function)"},
        {2, "exception 2 (illegal data address)"},
        {0x0B, "exception 11 (gateway target device failed to respond)"},
        {0x13, "exception 19 (unknown)"},
    };
    for (const auto &[code, text] : rows) {
        SCOPED_TRACE(code);
        dev.exception = code;
        dev.holding[0] = 99;
        const size_t asked = dev.requests.size();
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(turn(), LUMBRA_RESULT_GOOD) << "the station answered";
        EXPECT_EQ(dev.requests.size(), asked + 3) << "one request per poll, no retries";
        EXPECT_EQ(read16("0"), std::make_tuple(1, LUMBRA_QUALITY_REFUSED, 11)) << "the old value, marked";
        EXPECT_EQ(logCount(std::string("station 17 4X 0-1: ") + text), 1) << "once, not per poll";
        dev.exception = 0;
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
        EXPECT_EQ(read16("0"), std::make_tuple(1, LUMBRA_QUALITY_GOOD, 99));
        dev.holding[0] = 11;
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    }
}

TEST_P(Framed, ReadAcrossAHoleIsSplitUntilEveryExistingAddressReads)
{
    dev.setRange(0, 3, 5);
    dev.holding[8] = 8;  // 3..7 do not exist
    KEY_ADDRESS keys[] = {key("4X", "0"), key("4X", "1", 2), key("4X", "4"), key("4X", "5"), key("4X", "8")};
    ASSERT_EQ(d->merge(keys, 5), 1);
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    EXPECT_EQ(asked(), (std::vector<Request>{{3, 0, 9}, {3, 0, 3}, {3, 4, 2}, {3, 4, 1}, {3, 5, 1}, {3, 8, 1}}));
    EXPECT_EQ(logCount("4X 0-8: exception 2 for a read across several addresses; read in 3 parts"), 1);
    EXPECT_EQ(logCount("4X 4-5: exception 2 for a read across several addresses; read in 2 parts"), 1);
    EXPECT_EQ(read16("1"), std::make_tuple(1, LUMBRA_QUALITY_GOOD, 5));
    EXPECT_EQ(read16("8"), std::make_tuple(1, LUMBRA_QUALITY_GOOD, 8));
    EXPECT_EQ(read16("4"), std::make_tuple(0, LUMBRA_QUALITY_REFUSED, 0));
    EXPECT_EQ(read16("5"), std::make_tuple(0, LUMBRA_QUALITY_REFUSED, 0));

    // A new merge of the same points keeps the cuts the device asked for.
    ASSERT_EQ(d->merge(keys, 5), 4);
    dev.requests.clear();
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    const std::vector<Request> round = asked();
    EXPECT_EQ(std::set<Request>(round.begin(), round.end()), (std::set<Request>{{3, 0, 3}, {3, 4, 1}, {3, 5, 1}, {3, 8, 1}}));
}

TEST_P(Framed, WriteTicketsTellHowTheWriteEnded)
{
    struct Row {
        const char *name;
        std::function<void()> fault;
        int result, state;
        const char *reason;
    } rows[] = {
        {"confirmed", [] {}, LUMBRA_RESULT_GOOD, LUMBRA_WRITE_DONE, ""},
        {"refused", [&] { dev.exception = 2; }, LUMBRA_RESULT_GOOD, LUMBRA_WRITE_FAILED,
         "exception 2 (illegal data address)"},
        {"unanswered", [&] { dev.silent = true; }, LUMBRA_RESULT_INCOMPLETE, LUMBRA_WRITE_FAILED, "no reply"},
    };
    KEY_ADDRESS k = key("4X", "0");
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        fresh(4);
        ASSERT_EQ(d->merge(&k, 1), 1);
        row.fault();
        const int ticket = write16("3", 0x55AA);
        ASSERT_GT(ticket, 0);
        EXPECT_EQ(state(ticket).first, LUMBRA_WRITE_PENDING);
        EXPECT_EQ(turn(), row.result);
        EXPECT_EQ(state(ticket), std::make_pair(row.state, std::string(row.reason)));
        EXPECT_EQ(logCount(std::string("write to station 17 4X 3 refused: ") + row.reason), row.state != 1);
        turn();
        EXPECT_EQ(std::get<0>(requestOf(dev.requests.back())), 3) << "a failed write is not sent again";
    }

    // A write cancelled before it went out never goes.
    const int ticket = write16("3", 0x1111);
    d->cancelWrite(ticket);
    EXPECT_EQ(state(ticket), std::make_pair(LUMBRA_WRITE_FAILED, std::string("cancelled")));
    dev.silent = false;
    turn();
    EXPECT_EQ(std::get<0>(requestOf(dev.requests.back())), 3);
    EXPECT_EQ(dev.holding[3], 0);
    EXPECT_EQ(state(987654).first, LUMBRA_WRITE_FAILED) << "unknown ticket";
}

TEST_P(Framed, WritesOvertakeAReadWaitingForItsRetry)
{
    LinkOptions o;
    o.retries = 2;
    fresh(4, 0, o);
    KEY_ADDRESS k = key("4X", "0");
    ASSERT_EQ(d->merge(&k, 1), 1);
    dev.silent = true;
    ASSERT_EQ(turn(), LUMBRA_RESULT_INCOMPLETE);
    dev.silent = false;
    const int ticket = write16("3", 7);
    ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    EXPECT_EQ(state(ticket).first, LUMBRA_WRITE_DONE);
    ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    EXPECT_EQ(asked(), (std::vector<Request>{{3, 0, 1}, {6, 3, 7}, {3, 0, 1}})) << "the read resumes after the write";
}

TEST_P(Framed, ConditionReadsGoAfterWritesAheadOfPollsMergedByTheBlockRules)
{
    dev.setRange(0, 400, 9);
    dev.holding[203] = 203;
    KEY_ADDRESS polled[] = {key("4X", "0"), key("4X", "50")};
    ASSERT_EQ(d->merge(polled, 2), 2);
    ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    const int ticket = write16("3", 7);
    KEY_ADDRESS once[] = {key("4X", "200"), key("4X", ""), key("4X", "300"), key("4X", "200"), key("4X", "x")};
    once[1].index = d->indexOf("4X", "203");
    EXPECT_EQ(d->conditionRead(once, 5), 4) << "one already waiting counts, one that names nothing does not";
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    EXPECT_EQ(asked(), (std::vector<Request>{{3, 0, 1}, {6, 3, 7}, {3, 200, 4}, {3, 300, 1}, {3, 50, 1}, {3, 0, 1}}));
    EXPECT_EQ(state(ticket).first, LUMBRA_WRITE_DONE);
    EXPECT_EQ(read16("203"), std::make_tuple(1, LUMBRA_QUALITY_GOOD, 203));
    EXPECT_EQ(read16("300"), std::make_tuple(1, LUMBRA_QUALITY_GOOD, 9));
    EXPECT_EQ(d->conditionRead(nullptr, 1), -1);
}

TEST_P(Framed, AConditionReadFailsAsAPollDoesAndNeverMakesUpAValue)
{
    struct Row {
        const char *name;
        std::function<void()> fault;
        std::vector<int> results;
        int quality;
        int other;  // of the next read that waits for the same station
    } rows[] = {
        {"refused", [&] { dev.exception = 2; }, {LUMBRA_RESULT_GOOD}, LUMBRA_QUALITY_REFUSED, LUMBRA_QUALITY_NOT_READ},
        {"device failure", [&] { dev.exception = 4; }, {LUMBRA_RESULT_GOOD}, LUMBRA_QUALITY_REFUSED,
         LUMBRA_QUALITY_NOT_READ},
        {"unanswered", [&] { dev.silent = true; }, {LUMBRA_RESULT_INCOMPLETE, LUMBRA_RESULT_STATION_FAILED},
         LUMBRA_QUALITY_NO_REPLY, LUMBRA_QUALITY_NO_REPLY},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        fresh(400, 9);
        KEY_ADDRESS once[] = {key("4X", "100"), key("4X", "300")};
        ASSERT_EQ(d->conditionRead(once, 2), 2);
        row.fault();
        for (int result : row.results)
            EXPECT_EQ(turn(), result);
        EXPECT_EQ(read16("100"), std::make_tuple(0, row.quality, 0));
        EXPECT_EQ(std::get<1>(read16("300")), row.other);
        EXPECT_EQ(dev.requests.size(), row.results.size()) << "a dead station is not asked again at once";
    }

    // Merged across a hole in the map: asked for apart, so the one that exists reads.
    fresh(400, 9);
    dev.holding.erase(395);
    KEY_ADDRESS across[] = {key("4X", "390"), key("4X", "398")};
    ASSERT_EQ(d->conditionRead(across, 2), 2);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    EXPECT_EQ(asked(), (std::vector<Request>{{3, 390, 9}, {3, 390, 1}, {3, 398, 1}}));
    EXPECT_EQ(read16("390"), std::make_tuple(1, LUMBRA_QUALITY_GOOD, 9));
    EXPECT_EQ(read16("398"), std::make_tuple(1, LUMBRA_QUALITY_GOOD, 9));
}

TEST_P(Framed, AFloodOfConditionReadsIsCutAtTheQueueWithOneLogLine)
{
    dev.setRange(0, 6000, 1);
    std::vector<KEY_ADDRESS> keys;
    for (int i = 0; i < 300; ++i)
        keys.push_back(key("4X", std::to_string(i * 20).c_str()));
    EXPECT_EQ(d->conditionRead(keys.data(), 300), 256);
    EXPECT_EQ(d->conditionRead(keys.data() + 290, 10), 0);
    EXPECT_EQ(d->conditionRead(keys.data(), 10), 10) << "already waiting";
    EXPECT_EQ(logCount("condition read of station 17 4X 5120 dropped: 256 wait already"), 1);
    EXPECT_EQ(logLines.size(), 1u);
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(turn(), LUMBRA_RESULT_GOOD);
    EXPECT_EQ(turn(), 0) << "each is read once";
    EXPECT_EQ(dev.requests.size(), 256u);
    EXPECT_EQ(d->conditionRead(keys.data() + 299, 1), 1) << "room again";
}

TEST_P(Framed, AnOldGatewayIsNeverAskedForMore)
{
    LinkOptions o;
    o.abi = 1;
    fresh(3, 3, o);
    KEY_ADDRESS k = key("4X", "0", 3);
    ASSERT_EQ(d->merge(&k, 1), 1);
    EXPECT_EQ(turn([](Bytes &r) { r.pop_back(); }), LUMBRA_RESULT_INCOMPLETE);
    EXPECT_EQ(turn(), LUMBRA_RESULT_GOOD);
    EXPECT_EQ(read16("2"), std::make_tuple(1, LUMBRA_QUALITY_GOOD, 3));
    EXPECT_EQ(write16("1", 1, 0), tcp ? 1 : -1) << "no RTU broadcast without the no-reply frame";
}

TEST(ModbusRtu, BroadcastWriteGoesOutWithoutWaitingForAReply)
{
    Driver d(MODBUS_RTU_SO);
    ASSERT_EQ(d.init(LinkOptions{}), 0);
    FakeDevice dev;
    dev.tcp = false;
    dev.setRange(0, 8);
    const uint16_t v = 0x0102;
    int ticket = 0;
    ASSERT_EQ(d.setValue(0, "4X", 5, 1, LUMBRA_KIND_16BIT, reinterpret_cast<const uint8_t *>(&v), 2, &ticket), 1);
    FRAME_PRO f{};
    ASSERT_EQ(d.getSendFrame(&f), LUMBRA_FRAME_NO_REPLY);
    EXPECT_EQ(f.data[0], 0);
    EXPECT_TRUE(dev.answer(f).empty());
    EXPECT_EQ(dev.holding[5], v);
    EXPECT_EQ(d.writeState(ticket, nullptr, 0), LUMBRA_WRITE_DONE);
    char text[8];
    EXPECT_EQ(d.dealRcvFrame(f.data, f.len, text, sizeof text), LUMBRA_RESULT_INCOMPLETE) << "nothing awaited";

    uint8_t bit = 1;
    uint16_t word = 0;
    EXPECT_EQ(d.setValue(0, "4X", 0x100000 + 5 * 16, 1, LUMBRA_KIND_BIT, &bit, 1, &ticket), -1)
        << "a bit of a word needs the word back first";
    EXPECT_EQ(d.getValue(0, "4X", 5, 1, LUMBRA_KIND_16BIT, reinterpret_cast<uint8_t *>(&word), 2, nullptr), -1);
}
