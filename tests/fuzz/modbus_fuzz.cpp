// The Modbus driver's reply parsing fed arbitrary bytes as the answer to a
// real outstanding request, the way the link thread hands them: growing
// prefixes while the driver asks for more, then the time-out.
//
// Byte 0 picks the set-up: bit 0 TCP (else RTU), bit 1 retries, bit 2 a
// queued write (a bit of a holding register, so the fetch goes first),
// bit 3 an ABI 1 gateway, bits 4-6 the data_conver code. Byte 1 is the size
// of the pieces the reply arrives in. The rest is the reply; it is offered
// to three exchanges in a row, so a split or a write's second step sees it
// too. Every value is then read back in every kind.
#include "master.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

using namespace lumbra::modbus;

namespace {

constexpr int kExchanges = 3;

void keepLine(int, int, const char *text)
{
    // A line that is not terminated shows here under ASan.
    volatile size_t n = std::strlen(text);
    (void)n;
}

void changed(int, int, const char *reg, int)
{
    volatile size_t n = std::strlen(reg);
    (void)n;
}

// Station 1 comes first: one holding block across two gaps (4X 0-12), so
// that an exception 2 in the first reply splits it.
// (register, address, station, index, length in words)
const KEY_ADDRESS kKeys[] = {
    {"4X", "0", 1, -1, 4, 0, ""},  {"4X", "6", 1, -1, 3, 0, ""},  {"4X", "12.3", 1, -1, 1, 0, ""},
    {"0X", "0", 2, -1, 20, 0, ""}, {"1X", "3", 2, -1, 1, 0, ""},  {"3X", "5", 2, -1, 2, 0, ""},
};

void setUp(Master &m, uint8_t flags)
{
    LUMBRA_LINK_INFO info{};
    info.abi_version = flags & 8 ? 1 : 2;
    info.link_id = 1;
    info.plc_id = 1;
    info.retry_times = flags & 2 ? 1 : 0;
    info.data_conver = (flags >> 4) & 7;
    int size = sizeof info;
    m.setLogSink(keepLine);
    m.setCallback(changed);
    m.initProperty(reinterpret_cast<const unsigned char *>(&info), &size);
    m.merge(kKeys, static_cast<int>(sizeof kKeys / sizeof kKeys[0]));
    if (flags & 4) {
        const uint8_t on = 1;
        int ticket = 0;
        m.setValue(1, "4X", kBitOfWordBase + 12 * 16 + 3, 1, LUMBRA_KIND_BIT, &on, 1, &ticket);
    }
}

// One exchange: the reply arrives `piece` bytes at a time.
void exchangeOnce(Master &m, const uint8_t *reply, int len, int piece)
{
    FRAME_PRO frame{};
    if (m.nextFrame(&frame) != 1)
        return;
    char text[8];
    for (int n = piece < len ? piece : len;; n = n + piece < len ? n + piece : len) {
        if (m.onReply(reply, n, text, sizeof text) != LUMBRA_RESULT_NEED_MORE)
            return;
        if (n == len)
            break;
    }
    m.onReply(nullptr, 0, text, sizeof text);
}

void readBack(const Master &m)
{
    uint8_t out[64];
    int quality = 0;
    for (const KEY_ADDRESS &k : kKeys)
        for (int kind = LUMBRA_KIND_RAW; kind <= LUMBRA_KIND_STRING; ++kind) {
            int index = -1;
            if (m.checkAddress(k.reg, k.addr, &index, k.station) == LUMBRA_ADDR_OK)
                m.getValue(k.station, k.reg, index, k.len, kind, out, sizeof out, &quality);
        }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    Master m(data[0] & 1 ? Framing::Tcp : Framing::Rtu);
    setUp(m, data[0]);
    const int piece = 1 + data[1] % 32;
    const uint8_t *reply = data + 2;
    const int len = static_cast<int>(size - 2);
    for (int i = 0; i < kExchanges; ++i)
        exchangeOnce(m, reply, len, piece);
    readBack(m);
    char text[64];
    m.writeState(1, text, sizeof text);
    return 0;
}
