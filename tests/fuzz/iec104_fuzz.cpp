// The IEC 104 splitter fed arbitrary byte streams cut into arbitrary pieces:
// the first input byte picks the piece sizes, the rest is the stream. Every
// APDU handed out must be one the stream holds, in order, with a length it
// can have, and what is held back must stay below one APDU.
#include "device_comm/src/iec104splitter.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(bool ok)
{
    if (!ok)
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const int seed = data[0];
    const QByteArray stream(reinterpret_cast<const char *>(data + 1), static_cast<int>(size - 1));
    Iec104Splitter splitter;
    int fed = 0, cursor = 0;
    for (int piece = 0; fed < stream.size(); ++piece) {
        const int n = qMin(stream.size() - fed, 1 + (seed * 7 + piece * 13) % 64);
        splitter.append(stream.mid(fed, n));
        fed += n;
        QByteArray apdu;
        while (splitter.next(&apdu)) {
            check(apdu.size() >= 2 + Iec104Splitter::kMinLength && apdu.at(0) == 0x68);
            check(apdu.size() == 2 + static_cast<uint8_t>(apdu.at(1)));
            const int at = stream.indexOf(apdu, cursor);
            check(at >= cursor && at + apdu.size() <= fed);
            cursor = at + apdu.size();
        }
        check(splitter.pending() >= 0 && splitter.pending() < 2 + Iec104Splitter::kMaxLength);
    }
    return 0;
}
