#include "address.h"

#include <cctype>
#include <cstring>

namespace lumbra::modbus {

namespace {

// Decimal digits only, no sign or blanks: an address typed as "-1" or "1e3"
// is a mistake the user should see, not a value we guess at.
bool parseDecimal(const char *begin, const char *end, int max, int *out)
{
    if (begin == end)
        return false;
    long v = 0;
    for (const char *p = begin; p != end; ++p) {
        if (!std::isdigit(static_cast<unsigned char>(*p)))
            return false;
        v = v * 10 + (*p - '0');
        if (v > max)
            return false;
    }
    *out = static_cast<int>(v);
    return true;
}

}  // namespace

const char *areaName(Area area)
{
    static const char *const names[kAreaCount] = {"0X", "1X", "3X", "4X"};
    return names[static_cast<int>(area)];
}

bool parseArea(const char *reg, Area *area)
{
    // Every value read names its register: no strlen, no locale.
    if (!reg || !reg[0] || (reg[1] != 'X' && reg[1] != 'x') || reg[2] != '\0')
        return false;
    switch (reg[0]) {
    case '0': *area = Area::Coils; return true;
    case '1': *area = Area::DiscreteInputs; return true;
    case '3': *area = Area::InputRegisters; return true;
    case '4': *area = Area::HoldingRegisters; return true;
    default: return false;
    }
}

AddressCheck parseAddress(Area area, const char *text, const AddressFormat &format, Target *out)
{
    if (!text)
        return AddressCheck::Invalid;
    const char *end = text + std::strlen(text);
    const char *dot = std::strchr(text, '.');
    Target t;
    t.area = area;
    int number = 0;
    if (!parseDecimal(text, dot ? dot : end, format.number(kAddressSpace - 1), &number))
        return AddressCheck::Invalid;
    // A number below the base or between two registers names nothing.
    if (number < format.base || (number - format.base) % format.step != 0)
        return AddressCheck::Invalid;
    t.address = (number - format.base) / format.step;
    if (dot && isBitArea(area))
        return AddressCheck::RetryPlain;
    if (dot && !parseDecimal(dot + 1, end, 15, &t.bit))
        return AddressCheck::Invalid;
    *out = t;
    return AddressCheck::Ok;
}

int encodeIndex(const Target &t)
{
    return t.bitOfWord() ? kBitOfWordBase + t.address * 16 + t.bit : t.address;
}

bool decodeIndex(Area area, int index, Target *out)
{
    Target t;
    t.area = area;
    if (index >= 0 && index < kAddressSpace) {
        t.address = index;
    } else if (!isBitArea(area) && index >= kBitOfWordBase && index < kBitOfWordBase + kAddressSpace * 16) {
        t.address = (index - kBitOfWordBase) / 16;
        t.bit = (index - kBitOfWordBase) % 16;
    } else {
        return false;
    }
    *out = t;
    return true;
}

}  // namespace lumbra::modbus
