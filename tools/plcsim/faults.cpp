#include "faults.h"

#include "options.h"

#include <modbus.h>

#include <algorithm>

namespace plcsim {

namespace {

const int kAddresses = 65536;

int word(const uint8_t *p)
{
    return p[0] << 8 | p[1];
}

std::vector<std::string> split(const std::string &list)
{
    std::vector<std::string> items;
    size_t start = 0;
    for (size_t comma = list.find(','); ; comma = list.find(',', start)) {
        items.push_back(list.substr(start, comma - start));
        if (comma == std::string::npos)
            return items;
        start = comma + 1;
    }
}

bool allowedException(int code)
{
    return (code >= 1 && code <= 4) || code == 10 || code == 11;
}

}  // namespace

bool FaultMap::addRange(const std::string &item, int code, std::string &problem)
{
    const size_t dash = item.find('-');
    int first = 0;
    int last = 0;
    const std::string lastText = dash == std::string::npos ? item : item.substr(dash + 1);
    if (!parseInt(item.substr(0, dash), 0, kAddresses - 1, first, problem) ||
        !parseInt(lastText, first, kAddresses - 1, last, problem))
        return false;
    if (m_codes.empty())
        m_codes.assign(kAddresses, 0);
    std::fill(m_codes.begin() + first, m_codes.begin() + last + 1, static_cast<uint8_t>(code));
    return true;
}

bool FaultMap::add(const std::string &list, int code, std::string &problem)
{
    for (const std::string &item : split(list))
        if (!addRange(item, code, problem))
            return false;
    return true;
}

bool FaultMap::addCoded(const std::string &list, std::string &problem)
{
    for (const std::string &item : split(list)) {
        const size_t at = item.find('@');
        int code = 0;
        if (at == std::string::npos) {
            problem = "'" + item + "' is not CODE@ADDR";
            return false;
        }
        if (!parseInt(item.substr(0, at), 1, 11, code, problem) || !allowedException(code)) {
            problem = "'" + item.substr(0, at) + "' is not an exception code (1-4, 10, 11)";
            return false;
        }
        if (!addRange(item.substr(at + 1), code, problem))
            return false;
    }
    return true;
}

int FaultMap::codeIn(int first, int count) const
{
    const int end = std::min(first + count, kAddresses);
    for (int a = first; a < end; ++a)
        if (m_codes[a] != 0)
            return m_codes[a];
    return 0;
}

int FaultMap::exceptionFor(const uint8_t *pdu, int len) const
{
    if (m_codes.empty() || len < 3)
        return 0;
    switch (pdu[0]) {
    case MODBUS_FC_WRITE_SINGLE_COIL:
    case MODBUS_FC_WRITE_SINGLE_REGISTER:
    case MODBUS_FC_MASK_WRITE_REGISTER:
        return codeIn(word(pdu + 1), 1);
    case MODBUS_FC_READ_COILS:
    case MODBUS_FC_READ_DISCRETE_INPUTS:
    case MODBUS_FC_READ_HOLDING_REGISTERS:
    case MODBUS_FC_READ_INPUT_REGISTERS:
    case MODBUS_FC_WRITE_MULTIPLE_COILS:
    case MODBUS_FC_WRITE_MULTIPLE_REGISTERS:
        return len < 5 ? 0 : codeIn(word(pdu + 1), word(pdu + 3));
    case MODBUS_FC_WRITE_AND_READ_REGISTERS: {
        const int read = len < 5 ? 0 : codeIn(word(pdu + 1), word(pdu + 3));
        return read != 0 || len < 9 ? read : codeIn(word(pdu + 5), word(pdu + 7));
    }
    default:
        return 0;
    }
}

}  // namespace plcsim
