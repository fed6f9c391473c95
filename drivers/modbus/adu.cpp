#include "adu.h"

#include <algorithm>
#include <cstring>

namespace lumbra::modbus {

namespace {

constexpr int kMbapSize = 7;
// Unit id + function at least, unit id + the largest PDU at most.
constexpr int kMinMbapLength = 2;
constexpr int kMaxMbapLength = 254;
constexpr int kRtuExceptionSize = 5;

void put16(uint8_t *p, int v)
{
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

int get16(const uint8_t *p)
{
    return (p[0] << 8) | p[1];
}

int wrapTcp(int station, const Pdu &pdu, uint16_t transaction, uint8_t *out, int capacity)
{
    int len = kMbapSize + pdu.len;
    if (len > capacity)
        return 0;
    put16(out, transaction);
    put16(out + 2, 0);
    put16(out + 4, pdu.len + 1);
    out[6] = static_cast<uint8_t>(station);
    std::memcpy(out + kMbapSize, pdu.b.data(), static_cast<size_t>(pdu.len));
    return len;
}

int wrapRtu(int station, const Pdu &pdu, uint8_t *out, int capacity)
{
    int len = 1 + pdu.len + 2;
    if (len > capacity)
        return 0;
    out[0] = static_cast<uint8_t>(station);
    std::memcpy(out + 1, pdu.b.data(), static_cast<size_t>(pdu.len));
    uint16_t crc = crc16(out, len - 2);
    out[len - 2] = static_cast<uint8_t>(crc);
    out[len - 1] = static_cast<uint8_t>(crc >> 8);
    return len;
}

// How much of an MBAP header at p (rem bytes there) can be judged: -1 it is
// garbage, 0 too few bytes to tell, else the whole frame's size.
int mbapFrameSize(const uint8_t *p, int rem)
{
    if (rem >= 4 && get16(p + 2) != 0)
        return -1;
    if (rem < 6)
        return 0;
    int length = get16(p + 4);
    if (length < kMinMbapLength || length > kMaxMbapLength)
        return -1;
    return rem < kMbapSize ? 0 : 6 + length;
}

void takeTcpFrame(const uint8_t *data, int pos, Scan *s)
{
    s->found = true;
    s->unit = data[pos + 6];
    s->pdu = pos + kMbapSize;
    s->pduLen = get16(data + pos + 4) - 1;
}

// A frame of another transaction that is still incomplete may only be the
// head of garbage with our reply inside it: look for ours, whole, beyond.
bool findWholeAwaited(const uint8_t *data, int len, uint16_t transaction, int from, Scan *s)
{
    for (int pos = from; pos + kMbapSize <= len; ++pos) {
        int size = mbapFrameSize(data + pos, len - pos);
        if (size > 0 && get16(data + pos) == transaction && pos + size <= len) {
            takeTcpFrame(data, pos, s);
            return true;
        }
    }
    return false;
}

// The size of the reply frame that may start at p, or 0 when none can:
// the caller still checks that it is complete and its CRC.
int rtuCandidateSize(const uint8_t *p, int rem, int station, const Pdu &request)
{
    if (rem < 2 || p[0] != station)
        return 0;
    uint8_t fc = request.function();
    if (p[1] == (fc | kExceptionFlag))
        return kRtuExceptionSize;
    if (p[1] != fc)
        return 0;
    // A read reply must carry exactly the byte count asked for.
    if (isReadRequest(request) && rem >= 3 && p[2] != replyLength(request) - 2)
        return 0;
    return 1 + replyLength(request) + 2;
}

bool crcMatches(const uint8_t *frame, int size)
{
    uint16_t crc = crc16(frame, size - 2);
    return frame[size - 2] == static_cast<uint8_t>(crc) && frame[size - 1] == static_cast<uint8_t>(crc >> 8);
}

}  // namespace

uint16_t crc16(const uint8_t *data, int len)
{
    uint16_t crc = 0xFFFF;
    for (int i = 0; i < len; ++i) {
        crc ^= data[i];
        for (int b = 0; b < 8; ++b)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : static_cast<uint16_t>(crc >> 1);
    }
    return crc;
}

int wrapRequest(Framing framing, int station, const Pdu &pdu, uint16_t transaction, uint8_t *out, int capacity)
{
    if (!out || pdu.len < 1)
        return 0;
    return framing == Framing::Tcp ? wrapTcp(station, pdu, transaction, out, capacity)
                                   : wrapRtu(station, pdu, out, capacity);
}

// Garbage is counted by the run, once a header after it is recognised, so a
// run that arrives in pieces is reported whole, once.
Scan scanTcp(const uint8_t *data, int len, uint16_t transaction, int from)
{
    Scan s;
    int pos = 0, run = -1;
    while (data && pos < len) {
        int rem = len - pos;
        int size = mbapFrameSize(data + pos, rem);
        if (size < 0) {
            run = run < 0 ? pos : run;
            ++pos;
            continue;
        }
        if (size == 0)
            break;
        if (run >= 0)
            s.garbage += std::max(0, pos - std::max(run, from));
        run = -1;
        bool ours = get16(data + pos) == transaction;
        if (size > rem) {
            if (ours)
                s.announced = size;
            else if (findWholeAwaited(data, len, transaction, pos + 1, &s))
                return s;
            break;
        }
        if (ours) {
            takeTcpFrame(data, pos, &s);
            s.scanned = pos + size;
            return s;
        }
        s.foreign += pos >= from;
        pos += size;
    }
    s.scanned = run >= 0 ? run : pos;
    return s;
}

Scan scanRtu(const uint8_t *data, int len, int station, const Pdu &request)
{
    Scan s;
    for (int pos = 0; data && pos < len; ++pos) {
        int size = rtuCandidateSize(data + pos, len - pos, station, request);
        if (size <= 0 || pos + size > len || !crcMatches(data + pos, size))
            continue;
        s.found = true;
        s.unit = station;
        s.pdu = pos + 1;
        s.pduLen = size - 3;
        s.garbage = pos;
        s.scanned = pos + size;
        return s;
    }
    return s;
}

}  // namespace lumbra::modbus
