// Modbus application PDUs: requests this master sends and checks of replies.
#pragma once

#include "address.h"

#include <array>
#include <cstdint>

namespace lumbra::modbus {

constexpr int kMaxWriteCoils = 1968;
constexpr int kMaxWriteRegisters = 123;
constexpr uint8_t kExceptionFlag = 0x80;
constexpr int kIllegalDataAddress = 2;

// A request kept in place: an exchange is built every poll and must not
// cost an allocation.
struct Pdu {
    std::array<uint8_t, 256> b{};
    int len = 0;
    uint8_t function() const { return b[0]; }
};

Pdu readRequest(Area area, int start, int count);
// FC 5/6 for one cell unless `multiple`, else FC 15/16; cells are 0/1 for coils.
Pdu writeRequest(Area area, int start, const uint16_t *cells, int count, bool multiple);
Pdu maskWriteRequest(int address, uint16_t andMask, uint16_t orMask);
bool isReadRequest(const Pdu &request);
// Length of the good reply's PDU (reads: with the data the quantity implies).
int replyLength(const Pdu &request);

enum class Reply { Good, Exception, WrongFunction, WrongLength, WrongEcho };

// A reply is Good only when it answers exactly this request: same function,
// the byte count the quantity implies, or the echo a write must return.
Reply checkReply(const Pdu &request, const uint8_t *pdu, int len);
// Why a reply was not taken, for the log.
const char *replyFault(Reply r);
// The cells of a Good read reply; `cells` holds the request's quantity.
void replyCells(const Pdu &request, const uint8_t *pdu, uint16_t *cells);
// "illegal data address" for 2; "unknown" for codes without a name.
const char *exceptionName(int code);

}  // namespace lumbra::modbus
