#include "codec.h"

namespace lumbra::modbus {

namespace {

uint16_t deviceOrder(uint16_t w, const Settings &s)
{
    return s.byteSwap ? static_cast<uint16_t>((w << 8) | (w >> 8)) : w;
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

}  // namespace

bool valueShape(const Target &t, int count, Shape *out)
{
    if (t.bitOfWord()) {
        if (count != 1)
            return false;
        *out = {1, 1};
        return true;
    }
    if (count < 1 || count > kAddressSpace - t.address)
        return false;
    *out = {count, isBitArea(t.area) ? count : count * 2};
    return true;
}

void cellsToBytes(const Target &t, const uint16_t *cells, int count, const Settings &s, uint8_t *out)
{
    if (t.bitOfWord()) {
        out[0] = static_cast<uint8_t>((cells[0] >> t.bit) & 1);
    } else if (isBitArea(t.area)) {
        for (int i = 0; i < count; ++i)
            out[i] = cells[i] ? 1 : 0;
    } else if (count == 2) {
        uint16_t first = deviceOrder(cells[0], s), second = deviceOrder(cells[1], s);
        put16(out, s.lowWordFirst ? first : second);
        put16(out + 2, s.lowWordFirst ? second : first);
    } else {
        for (int i = 0; i < count; ++i)
            put16(out + 2 * i, deviceOrder(cells[i], s));
    }
}

void bytesToCells(const Target &t, const uint8_t *in, int count, const Settings &s, uint16_t *cells)
{
    if (t.bitOfWord() || isBitArea(t.area)) {
        for (int i = 0; i < count; ++i)
            cells[i] = in[i] ? 1 : 0;
    } else if (count == 2) {
        uint16_t low = get16(in), high = get16(in + 2);
        cells[0] = deviceOrder(s.lowWordFirst ? low : high, s);
        cells[1] = deviceOrder(s.lowWordFirst ? high : low, s);
    } else {
        for (int i = 0; i < count; ++i)
            cells[i] = deviceOrder(get16(in + 2 * i), s);
    }
}

}  // namespace lumbra::modbus
