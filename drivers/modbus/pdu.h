// Modbus application PDUs: requests this master sends and checks of replies.
#pragma once

#include "address.h"

#include <cstdint>
#include <vector>

namespace lumbra::modbus {

using Bytes = std::vector<uint8_t>;

constexpr int kMaxWriteCoils = 1968;
constexpr int kMaxWriteRegisters = 123;

Bytes readRequest(Area area, int start, int count);
// FC 5/6 for one cell, FC 15/16 for more; cells are 0/1 for coils.
Bytes writeRequest(Area area, int start, const uint16_t *cells, int count);
Bytes maskWriteRequest(int address, uint16_t andMask, uint16_t orMask);

enum class Reply { Good, Exception, Bad };

// A reply is Good only when it answers exactly this request: same function,
// the byte count the quantity implies, or the echo a write must return.
Reply checkReply(const Bytes &request, const uint8_t *pdu, int len);
// The cells of a Good read reply; `cells` holds the request's quantity.
void replyCells(const Bytes &request, const uint8_t *pdu, uint16_t *cells);

}  // namespace lumbra::modbus
