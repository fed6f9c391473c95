// The link's "driver_property" text: value layout, merging and write style.
#pragma once

#include "address.h"

#include <bitset>

namespace lumbra::modbus {

constexpr int kMaxReadRegisters = 125;
constexpr int kMaxReadBits = 2000;

struct Settings {
    int wordOrder = -1;         // 1 low word first, 0 high word first, -1 not given
    int byteSwap = -1;          // 1 low byte first in each register, 0 not, -1 not given
    int maxGap = 8;             // registers of unused gap bridged by one request
    int maxBitGap = 32;         // bits of unused gap bridged by one request
    int maxRegisters = kMaxReadRegisters;
    int maxBits = kMaxReadBits;
    bool maskWrite = false;     // bit-of-word writes with FC 22 instead of read + FC 6
    bool fc16Only = false;      // one register (coil) written with FC 16 (15) too
    std::bitset<kStationCount> fc16Stations;
    bool multipleWrites(int station) const { return fc16Only || fc16Stations.test(static_cast<size_t>(station)); }
};

// "key=value;key=value". Unknown keys are skipped; a malformed pair or an
// out-of-range value rejects the whole text (false, *out untouched).
bool parseSettings(const char *text, Settings *out);

}  // namespace lumbra::modbus
