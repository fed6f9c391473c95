#include "pdu.h"

#include <cstring>

namespace lumbra::modbus {

namespace {

enum Function : uint8_t {
    kReadCoils = 1,
    kReadDiscreteInputs = 2,
    kReadHoldingRegisters = 3,
    kReadInputRegisters = 4,
    kWriteCoil = 5,
    kWriteRegister = 6,
    kWriteCoils = 15,
    kWriteRegisters = 16,
    kMaskWriteRegister = 22,
};

constexpr uint8_t kExceptionFlag = 0x80;

void push16(Bytes &b, int v)
{
    b.push_back(static_cast<uint8_t>(v >> 8));
    b.push_back(static_cast<uint8_t>(v));
}

int get16(const uint8_t *p)
{
    return (p[0] << 8) | p[1];
}

uint8_t readFunction(Area area)
{
    switch (area) {
    case Area::Coils: return kReadCoils;
    case Area::DiscreteInputs: return kReadDiscreteInputs;
    case Area::InputRegisters: return kReadInputRegisters;
    case Area::HoldingRegisters: return kReadHoldingRegisters;
    }
    return kReadHoldingRegisters;
}

bool readsBits(uint8_t fc)
{
    return fc == kReadCoils || fc == kReadDiscreteInputs;
}

Bytes header(uint8_t fc, int address)
{
    Bytes b{fc};
    push16(b, address);
    return b;
}

Bytes writeCells(uint8_t fc, int start, const uint16_t *cells, int count, bool bits)
{
    Bytes b = header(fc, start);
    push16(b, count);
    b.push_back(static_cast<uint8_t>(bits ? (count + 7) / 8 : count * 2));
    if (bits) {
        size_t first = b.size();
        b.resize(first + (count + 7) / 8, 0);
        for (int i = 0; i < count; ++i)
            if (cells[i])
                b[first + i / 8] |= static_cast<uint8_t>(1 << (i % 8));
    } else {
        for (int i = 0; i < count; ++i)
            push16(b, cells[i]);
    }
    return b;
}

// Length of the good reply to a request: reads carry their data, writes echo
// the request's address and quantity (or, for FC 5/6/22, all of it).
int expectedLength(const Bytes &request)
{
    uint8_t fc = request[0];
    if (fc <= kReadInputRegisters) {
        int q = get16(&request[3]);
        return 2 + (readsBits(fc) ? (q + 7) / 8 : 2 * q);
    }
    return fc == kMaskWriteRegister ? 7 : 5;
}

}  // namespace

Bytes readRequest(Area area, int start, int count)
{
    Bytes b = header(readFunction(area), start);
    push16(b, count);
    return b;
}

Bytes writeRequest(Area area, int start, const uint16_t *cells, int count)
{
    bool bits = isBitArea(area);
    if (count == 1) {
        Bytes b = header(bits ? kWriteCoil : kWriteRegister, start);
        push16(b, bits ? (cells[0] ? 0xFF00 : 0x0000) : cells[0]);
        return b;
    }
    return writeCells(bits ? kWriteCoils : kWriteRegisters, start, cells, count, bits);
}

Bytes maskWriteRequest(int address, uint16_t andMask, uint16_t orMask)
{
    Bytes b = header(kMaskWriteRegister, address);
    push16(b, andMask);
    push16(b, orMask);
    return b;
}

Reply checkReply(const Bytes &request, const uint8_t *pdu, int len)
{
    if (request.size() < 5 || !pdu || len < 2)
        return Reply::Bad;
    uint8_t fc = request[0];
    if (pdu[0] == (fc | kExceptionFlag))
        return len == 2 ? Reply::Exception : Reply::Bad;
    if (pdu[0] != fc || len != expectedLength(request))
        return Reply::Bad;
    if (fc <= kReadInputRegisters)
        return pdu[1] == len - 2 ? Reply::Good : Reply::Bad;
    return std::memcmp(pdu + 1, request.data() + 1, len - 1) == 0 ? Reply::Good : Reply::Bad;
}

void replyCells(const Bytes &request, const uint8_t *pdu, uint16_t *cells)
{
    int q = get16(&request[3]);
    const uint8_t *data = pdu + 2;
    for (int i = 0; i < q; ++i)
        cells[i] = readsBits(request[0]) ? (data[i / 8] >> (i % 8)) & 1 : static_cast<uint16_t>(get16(data + 2 * i));
}

}  // namespace lumbra::modbus
