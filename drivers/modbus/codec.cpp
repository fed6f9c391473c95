#include "codec.h"

#include <lumbra/driver.h>

namespace lumbra::modbus {

namespace {

uint16_t swapped(uint16_t w, bool swap)
{
    return swap ? static_cast<uint16_t>((w << 8) | (w >> 8)) : w;
}

void put16(uint8_t *out, uint16_t v)
{
    out[0] = static_cast<uint8_t>(v);
    out[1] = static_cast<uint8_t>(v >> 8);
}

uint16_t get16(const uint8_t *in)
{
    return static_cast<uint16_t>(in[0] | (in[1] << 8));
}

// RAW is the layout of the ABI's first version: two registers are taken for
// a 32-bit value, more for words.
int effectiveKind(const Target &t, int count, int kind)
{
    if (kind != LUMBRA_KIND_RAW)
        return kind;
    if (t.bitOfWord() || isBitArea(t.area))
        return LUMBRA_KIND_BIT;
    return count == 2 ? LUMBRA_KIND_32BIT : LUMBRA_KIND_RAW;
}

bool wordKindFits(const Target &t, int count, int kind)
{
    if (t.bitOfWord() || isBitArea(t.area))
        return false;
    switch (kind) {
    case LUMBRA_KIND_16BIT: return count == 1;
    case LUMBRA_KIND_32BIT: return count == 2;
    case LUMBRA_KIND_STRING:
    case LUMBRA_KIND_RAW: return true;
    default: return false;
    }
}

}  // namespace

Order orderFromCode(int code)
{
    Order o;
    o.lowWordFirst = code & 1;
    o.byteSwap = code & 2;
    o.stringLowFirst = code & 4;
    return o;
}

bool valueShape(const Target &t, int count, int kind, Shape *out)
{
    if (t.bitOfWord()) {
        if (count != 1 || (kind != LUMBRA_KIND_RAW && kind != LUMBRA_KIND_BIT))
            return false;
        *out = {1, 1};
        return true;
    }
    if (count < 1 || count > kAddressSpace - t.address)
        return false;
    if (isBitArea(t.area)) {
        if (kind != LUMBRA_KIND_RAW && kind != LUMBRA_KIND_BIT)
            return false;
        *out = {count, count};
        return true;
    }
    if (!wordKindFits(t, count, kind))
        return false;
    *out = {count, count * 2};
    return true;
}

void cellsToBytes(const Target &t, const uint16_t *cells, int count, int kind, const Order &o, uint8_t *out)
{
    switch (effectiveKind(t, count, kind)) {
    case LUMBRA_KIND_BIT:
        for (int i = 0; i < count; ++i)
            out[i] = static_cast<uint8_t>(t.bitOfWord() ? (cells[0] >> t.bit) & 1 : cells[i] != 0);
        return;
    case LUMBRA_KIND_32BIT: {
        uint16_t first = swapped(cells[0], o.byteSwap), second = swapped(cells[1], o.byteSwap);
        put16(out, o.lowWordFirst ? first : second);
        put16(out + 2, o.lowWordFirst ? second : first);
        return;
    }
    case LUMBRA_KIND_STRING:
        for (int i = 0; i < count; ++i) {
            out[2 * i] = static_cast<uint8_t>(o.stringLowFirst ? cells[i] : cells[i] >> 8);
            out[2 * i + 1] = static_cast<uint8_t>(o.stringLowFirst ? cells[i] >> 8 : cells[i]);
        }
        return;
    default:
        for (int i = 0; i < count; ++i)
            put16(out + 2 * i, swapped(cells[i], o.byteSwap));
    }
}

void bytesToCells(const Target &t, const uint8_t *in, int count, int kind, const Order &o, uint16_t *cells)
{
    switch (effectiveKind(t, count, kind)) {
    case LUMBRA_KIND_BIT:
        for (int i = 0; i < count; ++i)
            cells[i] = in[i] ? 1 : 0;
        return;
    case LUMBRA_KIND_32BIT: {
        uint16_t low = get16(in), high = get16(in + 2);
        cells[0] = swapped(o.lowWordFirst ? low : high, o.byteSwap);
        cells[1] = swapped(o.lowWordFirst ? high : low, o.byteSwap);
        return;
    }
    case LUMBRA_KIND_STRING:
        for (int i = 0; i < count; ++i) {
            uint16_t first = in[2 * i], second = in[2 * i + 1];
            cells[i] = static_cast<uint16_t>(o.stringLowFirst ? (second << 8) | first : (first << 8) | second);
        }
        return;
    default:
        for (int i = 0; i < count; ++i)
            cells[i] = swapped(get16(in + 2 * i), o.byteSwap);
    }
}

}  // namespace lumbra::modbus
