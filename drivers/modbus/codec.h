// Consumer byte layouts of cached cells, by value kind: native words and
// 32-bit values in the device's byte and word order, text in reading order,
// one byte 0/1 per bit.
#pragma once

#include "address.h"

#include <cstdint>

namespace lumbra::modbus {

// The order a device keeps its values in, from a data_conver code: bits 0-1
// ABCD, CDAB, BADC, DCBA for numbers; bit 2 strings low byte first.
struct Order {
    bool lowWordFirst = false;    // 32-bit values: low word in the lower register
    bool byteSwap = false;        // low byte first in each register of a number
    bool stringLowFirst = false;  // low byte first in each register of a string
};
Order orderFromCode(int code);

struct Shape {
    int cells = 0;  // device cells the value spans
    int bytes = 0;  // bytes a consumer exchanges for it
};

// False when `count` units of `kind` (a LUMBRA_KIND_*) do not form a value at `t`.
bool valueShape(const Target &t, int count, int kind, Shape *out);
void cellsToBytes(const Target &t, const uint16_t *cells, int count, int kind, const Order &o, uint8_t *out);
// For a bit of a word the single cell holds the bit's value, not the word.
void bytesToCells(const Target &t, const uint8_t *in, int count, int kind, const Order &o, uint16_t *cells);

}  // namespace lumbra::modbus
