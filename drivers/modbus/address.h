// Register names, address texts and the driver's index encoding.
#pragma once

#include <cstdint>

namespace lumbra::modbus {

enum class Area : uint8_t { Coils, DiscreteInputs, InputRegisters, HoldingRegisters };
constexpr int kAreaCount = 4;
constexpr int kAddressSpace = 65536;
constexpr int kStationCount = 256;
// Bit-of-word indexes live above every plain address so the two never meet.
constexpr int kBitOfWordBase = 0x100000;

bool parseArea(const char *reg, Area *area);
// "0X", "1X", "3X", "4X".
const char *areaName(Area area);
inline bool isBitArea(Area a) { return a == Area::Coils || a == Area::DiscreteInputs; }
inline bool isWritable(Area a) { return a == Area::Coils || a == Area::HoldingRegisters; }

// One addressed cell: a bit, a word, or one bit of a word (bit >= 0).
struct Target {
    Area area = Area::HoldingRegisters;
    int address = 0;  // protocol address
    int bit = -1;
    bool bitOfWord() const { return bit >= 0; }
};

// How the numbers in address texts map to protocol addresses: device
// manuals count from 1, some devices number registers in bytes.
struct AddressFormat {
    int base = 0;  // the number of protocol address 0
    int step = 1;  // distance between the numbers of consecutive registers
    int number(int address) const { return base + address * step; }
};

enum class AddressCheck { Ok, RetryPlain, Invalid };

AddressCheck parseAddress(Area area, const char *text, const AddressFormat &format, Target *out);
int encodeIndex(const Target &t);
bool decodeIndex(Area area, int index, Target *out);

}  // namespace lumbra::modbus
