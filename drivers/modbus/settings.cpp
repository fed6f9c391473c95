#include "settings.h"

#include "text.h"

#include <string>

namespace lumbra::modbus {

namespace {

bool parseChoice(const std::string &v, const char *no, const char *yes, int *out)
{
    if (v != no && v != yes)
        return false;
    *out = v == yes;
    return true;
}

bool parseFlag(const std::string &v, bool *out)
{
    int n = 0;
    if (!parseChoice(v, "0", "1", &n))
        return false;
    *out = n != 0;
    return true;
}

// "2,5 7": stations separated by commas or blanks.
bool parseStations(const std::string &v, std::bitset<kStationCount> *out)
{
    std::bitset<kStationCount> stations;
    for (const std::string &t : splitTokens(v, ", \t")) {
        int n = 0;
        if (!parseInt(t, 0, kStationCount - 1, &n))
            return false;
        stations.set(static_cast<size_t>(n));
    }
    *out = stations;
    return true;
}

bool applyPair(const std::string &key, const std::string &v, Settings *s)
{
    int mask = 0;
    if (key == "word_order")
        return parseChoice(v, "high_first", "low_first", &s->wordOrder);
    if (key == "byte_swap")
        return parseChoice(v, "0", "1", &s->byteSwap);
    if (key == "bit_write") {
        bool ok = parseChoice(v, "rmw", "mask", &mask);
        s->maskWrite = mask != 0;
        return ok;
    }
    if (key == "fc16_only")
        return parseFlag(v, &s->fc16Only);
    if (key == "fc16_stations")
        return parseStations(v, &s->fc16Stations);
    if (key == "max_gap")
        return parseInt(v, 0, kMaxReadRegisters, &s->maxGap);
    if (key == "max_bit_gap")
        return parseInt(v, 0, kMaxReadBits, &s->maxBitGap);
    if (key == "max_regs")
        return parseInt(v, 1, kMaxReadRegisters, &s->maxRegisters);
    if (key == "max_bits")
        return parseInt(v, 1, kMaxReadBits, &s->maxBits);
    return true;  // a newer gateway may know keys this driver does not
}

}  // namespace

bool parseSettings(const char *text, Settings *out)
{
    if (!text)
        return false;
    Settings s;
    for (const std::string &pair : splitTokens(text, ";")) {
        if (trimmedLower(pair).empty())
            continue;
        size_t eq = pair.find('=');
        if (eq == std::string::npos)
            return false;
        if (!applyPair(trimmedLower(pair.substr(0, eq)), trimmedLower(pair.substr(eq + 1)), &s))
            return false;
    }
    *out = s;
    return true;
}

}  // namespace lumbra::modbus
