// The link's "driver_property" text: value layout, merging and write style.
#pragma once

namespace lumbra::modbus {

constexpr int kMaxReadRegisters = 125;
constexpr int kMaxReadBits = 2000;

struct Settings {
    bool lowWordFirst = false;  // 32-bit values: low word in the lower register
    bool byteSwap = false;      // device keeps the low byte first in each register
    int maxGap = 8;             // registers of unused gap bridged by one request
    int maxBitGap = 32;         // bits of unused gap bridged by one request
    int maxRegisters = kMaxReadRegisters;
    int maxBits = kMaxReadBits;
    bool maskWrite = false;     // bit-of-word writes with FC 22 instead of read + FC 6
};

// "key=value;key=value". Unknown keys are skipped; a malformed pair or an
// out-of-range value rejects the whole text (false, *out untouched).
bool parseSettings(const char *text, Settings *out);

}  // namespace lumbra::modbus
