// Register names, address texts and the driver's index encoding.
#pragma once

#include <cstdint>

namespace lumbra::modbus {

enum class Area : uint8_t { Coils, DiscreteInputs, InputRegisters, HoldingRegisters };
constexpr int kAreaCount = 4;
constexpr int kAddressSpace = 65536;
// Bit-of-word indexes live above every plain address so the two never meet.
constexpr int kBitOfWordBase = 0x100000;

bool parseArea(const char *reg, Area *area);
inline bool isBitArea(Area a) { return a == Area::Coils || a == Area::DiscreteInputs; }
inline bool isWritable(Area a) { return a == Area::Coils || a == Area::HoldingRegisters; }

// One addressed cell: a bit, a word, or one bit of a word (bit >= 0).
struct Target {
    Area area = Area::HoldingRegisters;
    int address = 0;
    int bit = -1;
    bool bitOfWord() const { return bit >= 0; }
};

enum class AddressCheck { Ok, RetryPlain, Invalid };

AddressCheck parseAddress(Area area, const char *text, Target *out);
int encodeIndex(const Target &t);
bool decodeIndex(Area area, int index, Target *out);

}  // namespace lumbra::modbus
