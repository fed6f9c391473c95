// Consumer byte layouts of cached cells: native little-endian words, 32-bit
// values assembled from two registers, one byte 0/1 per bit.
#pragma once

#include "address.h"
#include "settings.h"

#include <cstdint>

namespace lumbra::modbus {

struct Shape {
    int cells = 0;  // device cells the value spans
    int bytes = 0;  // bytes a consumer exchanges for it
};

// False when `count` units do not form a value at `t`.
bool valueShape(const Target &t, int count, Shape *out);
void cellsToBytes(const Target &t, const uint16_t *cells, int count, const Settings &s, uint8_t *out);
// For a bit of a word the single cell holds the bit's value, not the word.
void bytesToCells(const Target &t, const uint8_t *in, int count, const Settings &s, uint16_t *cells);

}  // namespace lumbra::modbus
