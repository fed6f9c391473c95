// The wire frame around a PDU. The build picks one framing per library:
// RTU (station, PDU, CRC-16) or TCP (MBAP header with a transaction id).
#pragma once

#include <cstdint>
#include <vector>

namespace lumbra::modbus {

#if defined(LUMBRA_MODBUS_FRAMING_TCP)
constexpr bool kTcpFraming = true;
#else
constexpr bool kTcpFraming = false;
#endif

// Bytes written to `out`, or 0 when the frame does not fit.
int wrapRequest(int station, const std::vector<uint8_t> &pdu, uint16_t transaction, uint8_t *out, int capacity);
// Finds the PDU of a reply that is whole and belongs to this exchange
// (station, checksum or transaction id); false for anything else.
bool unwrapReply(const uint8_t *data, int len, int station, uint16_t transaction, const uint8_t **pdu,
                 int *pduLen);

}  // namespace lumbra::modbus
