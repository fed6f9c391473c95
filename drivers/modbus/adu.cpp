#include "adu.h"

#include <cstring>

namespace lumbra::modbus {

namespace {

#if defined(LUMBRA_MODBUS_FRAMING_TCP)

constexpr int kMbapSize = 7;

void put16(uint8_t *p, int v)
{
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

int get16(const uint8_t *p)
{
    return (p[0] << 8) | p[1];
}

int wrap(int station, const std::vector<uint8_t> &pdu, uint16_t transaction, uint8_t *out, int capacity)
{
    int len = kMbapSize + static_cast<int>(pdu.size());
    if (len > capacity)
        return 0;
    put16(out, transaction);
    put16(out + 2, 0);
    put16(out + 4, static_cast<int>(pdu.size()) + 1);
    out[6] = static_cast<uint8_t>(station);
    std::memcpy(out + kMbapSize, pdu.data(), pdu.size());
    return len;
}

bool unwrap(const uint8_t *data, int len, int station, uint16_t transaction, const uint8_t **pdu, int *pduLen)
{
    if (len < kMbapSize + 1)
        return false;
    // A reply to an earlier, timed-out request carries an older id: it must
    // not be taken for the answer to this one.
    if (get16(data) != transaction || get16(data + 2) != 0 || get16(data + 4) != len - 6 || data[6] != station)
        return false;
    *pdu = data + kMbapSize;
    *pduLen = len - kMbapSize;
    return true;
}

#else

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

int wrap(int station, const std::vector<uint8_t> &pdu, uint16_t, uint8_t *out, int capacity)
{
    int len = 1 + static_cast<int>(pdu.size()) + 2;
    if (len > capacity)
        return 0;
    out[0] = static_cast<uint8_t>(station);
    std::memcpy(out + 1, pdu.data(), pdu.size());
    uint16_t crc = crc16(out, len - 2);
    out[len - 2] = static_cast<uint8_t>(crc);
    out[len - 1] = static_cast<uint8_t>(crc >> 8);
    return len;
}

bool unwrap(const uint8_t *data, int len, int station, uint16_t, const uint8_t **pdu, int *pduLen)
{
    if (len < 4 || data[0] != station)
        return false;
    uint16_t crc = crc16(data, len - 2);
    if (data[len - 2] != static_cast<uint8_t>(crc) || data[len - 1] != static_cast<uint8_t>(crc >> 8))
        return false;
    *pdu = data + 1;
    *pduLen = len - 3;
    return true;
}

#endif

}  // namespace

int wrapRequest(int station, const std::vector<uint8_t> &pdu, uint16_t transaction, uint8_t *out, int capacity)
{
    return wrap(station, pdu, transaction, out, capacity);
}

bool unwrapReply(const uint8_t *data, int len, int station, uint16_t transaction, const uint8_t **pdu,
                 int *pduLen)
{
    return data && len > 0 && unwrap(data, len, station, transaction, pdu, pduLen);
}

}  // namespace lumbra::modbus
