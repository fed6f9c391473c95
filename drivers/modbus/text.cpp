#include "text.h"

#include <cctype>
#include <cstdlib>

namespace lumbra::modbus {

std::string trimmedLower(const std::string &s)
{
    size_t b = s.find_first_not_of(" \t\r\n");
    size_t e = s.find_last_not_of(" \t\r\n");
    std::string r = b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
    for (char &c : r)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return r;
}

std::vector<std::string> splitTokens(const std::string &text, const char *separators)
{
    std::vector<std::string> tokens;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find_first_of(separators, pos);
        if (end == std::string::npos)
            end = text.size();
        if (end > pos)
            tokens.push_back(text.substr(pos, end - pos));
        pos = end + 1;
    }
    return tokens;
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

}  // namespace lumbra::modbus
