// The wire frame around a PDU: RTU (station, PDU, CRC-16) or TCP (MBAP
// header with a transaction id), and the search for the reply in what the
// link thread received so far.
#pragma once

#include "pdu.h"

#include <cstdint>

namespace lumbra::modbus {

enum class Framing : uint8_t { Rtu, Tcp };

// Bytes written to `out`, or 0 when the frame does not fit.
int wrapRequest(Framing framing, int station, const Pdu &pdu, uint16_t transaction, uint8_t *out, int capacity);

// What a scan of the receive buffer found. TCP counts only cover bytes at
// or past `from`, so that a buffer handed again with more at its end reports
// each fault once; RTU reports only once it found the reply.
struct Scan {
    bool found = false;
    int pdu = 0;         // offset of the reply's PDU
    int pduLen = 0;
    int unit = -1;       // unit id (station) the reply carries
    int garbage = 0;     // bytes dropped before a frame could be recognised
    int foreign = 0;     // whole frames of other transactions skipped
    int announced = 0;   // TCP: size of the awaited frame still incomplete
    int scanned = 0;     // offset up to which the scan has judged the bytes
};

// TCP: frames are walked by their MBAP header. A plausible header of
// another transaction is skipped by its length; an implausible one costs
// one byte (resynchronisation).
Scan scanTcp(const uint8_t *data, int len, uint16_t transaction, int from);
// RTU: the first frame that starts with the station and the request's
// function (or its exception), has the length the request implies and a
// valid CRC. Everything before it is noise.
Scan scanRtu(const uint8_t *data, int len, int station, const Pdu &request);

uint16_t crc16(const uint8_t *data, int len);

}  // namespace lumbra::modbus
