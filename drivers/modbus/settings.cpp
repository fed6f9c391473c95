#include "settings.h"

#include <cctype>
#include <cstdlib>
#include <string>

namespace lumbra::modbus {

namespace {

std::string trimmedLower(const std::string &s)
{
    size_t b = s.find_first_not_of(" \t\r\n");
    size_t e = s.find_last_not_of(" \t\r\n");
    std::string r = b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
    for (char &c : r)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return r;
}

bool parseInt(const std::string &v, int min, int max, int *out)
{
    if (v.empty() || v.size() > 6)
        return false;
    for (char c : v)
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
    int n = std::atoi(v.c_str());
    if (n < min || n > max)
        return false;
    *out = n;
    return true;
}

bool parseChoice(const std::string &v, const char *no, const char *yes, bool *out)
{
    if (v != no && v != yes)
        return false;
    *out = v == yes;
    return true;
}

bool applyPair(const std::string &key, const std::string &v, Settings *s)
{
    if (key == "word_order")
        return parseChoice(v, "high_first", "low_first", &s->lowWordFirst);
    if (key == "byte_swap")
        return parseChoice(v, "0", "1", &s->byteSwap);
    if (key == "bit_write")
        return parseChoice(v, "rmw", "mask", &s->maskWrite);
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
    std::string all(text);
    size_t pos = 0;
    while (pos <= all.size()) {
        size_t semi = all.find(';', pos);
        std::string pair = all.substr(pos, semi == std::string::npos ? std::string::npos : semi - pos);
        pos = semi == std::string::npos ? all.size() + 1 : semi + 1;
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
