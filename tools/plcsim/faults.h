// Addresses a real device would refuse: gaps in a sparse register map, or
// any exception a test wants to see end to end.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace plcsim {

class FaultMap {
public:
    // "50-59,70,200": each listed address answers code (1..255).
    bool add(const std::string &list, int code, std::string &problem);
    // "4@7,11@300-302": an exception code (1-4, 10, 11) at an address or range.
    bool addCoded(const std::string &list, std::string &problem);
    bool empty() const { return m_codes.empty(); }
    // The exception a request PDU (function code first) gets, 0 when it may
    // be answered. The same addresses count in all four areas.
    int exceptionFor(const uint8_t *pdu, int len) const;

private:
    bool addRange(const std::string &item, int code, std::string &problem);
    int codeIn(int first, int count) const;

    std::vector<uint8_t> m_codes;  // per address; 0 = it exists
};

}  // namespace plcsim
