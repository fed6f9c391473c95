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

void push8(Pdu &p, int v)
{
    p.b[static_cast<size_t>(p.len++)] = static_cast<uint8_t>(v);
}

void push16(Pdu &p, int v)
{
    push8(p, v >> 8);
    push8(p, v);
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

Pdu header(uint8_t fc, int address)
{
    Pdu p;
    push8(p, fc);
    push16(p, address);
    return p;
}

Pdu writeCells(uint8_t fc, int start, const uint16_t *cells, int count, bool bits)
{
    Pdu p = header(fc, start);
    push16(p, count);
    int bytes = bits ? (count + 7) / 8 : count * 2;
    push8(p, bytes);
    if (bits) {
        uint8_t *first = p.b.data() + p.len;
        std::memset(first, 0, static_cast<size_t>(bytes));
        for (int i = 0; i < count; ++i)
            if (cells[i])
                first[i / 8] |= static_cast<uint8_t>(1 << (i % 8));
        p.len += bytes;
    } else {
        for (int i = 0; i < count; ++i)
            push16(p, cells[i]);
    }
    return p;
}

}  // namespace

Pdu readRequest(Area area, int start, int count)
{
    Pdu p = header(readFunction(area), start);
    push16(p, count);
    return p;
}

Pdu writeRequest(Area area, int start, const uint16_t *cells, int count, bool multiple)
{
    bool bits = isBitArea(area);
    if (count == 1 && !multiple) {
        Pdu p = header(bits ? kWriteCoil : kWriteRegister, start);
        push16(p, bits ? (cells[0] ? 0xFF00 : 0x0000) : cells[0]);
        return p;
    }
    return writeCells(bits ? kWriteCoils : kWriteRegisters, start, cells, count, bits);
}

Pdu maskWriteRequest(int address, uint16_t andMask, uint16_t orMask)
{
    Pdu p = header(kMaskWriteRegister, address);
    push16(p, andMask);
    push16(p, orMask);
    return p;
}

bool isReadRequest(const Pdu &request)
{
    return request.function() >= kReadCoils && request.function() <= kReadInputRegisters;
}

// Reads carry their data; writes echo the request's address and quantity
// (or, for FC 5/6/22, all of it).
int replyLength(const Pdu &request)
{
    uint8_t fc = request.function();
    if (isReadRequest(request)) {
        int q = get16(&request.b[3]);
        return 2 + (readsBits(fc) ? (q + 7) / 8 : 2 * q);
    }
    return fc == kMaskWriteRegister ? 7 : 5;
}

Reply checkReply(const Pdu &request, const uint8_t *pdu, int len)
{
    if (request.len < 5 || !pdu || len < 1)
        return Reply::WrongLength;
    uint8_t fc = request.function();
    if (pdu[0] == (fc | kExceptionFlag))
        return len == 2 ? Reply::Exception : Reply::WrongLength;
    if (pdu[0] != fc)
        return Reply::WrongFunction;
    if (len != replyLength(request))
        return Reply::WrongLength;
    if (isReadRequest(request))
        return pdu[1] == len - 2 ? Reply::Good : Reply::WrongLength;
    return std::memcmp(pdu + 1, request.b.data() + 1, static_cast<size_t>(len - 1)) == 0 ? Reply::Good
                                                                                         : Reply::WrongEcho;
}

const char *replyFault(Reply r)
{
    switch (r) {
    case Reply::Good: return "good";
    case Reply::Exception: return "exception";
    case Reply::WrongFunction: return "wrong function code";
    case Reply::WrongLength: return "wrong length or byte count";
    case Reply::WrongEcho: return "write echo does not match";
    }
    return "bad reply";
}

void replyCells(const Pdu &request, const uint8_t *pdu, uint16_t *cells)
{
    int q = get16(&request.b[3]);
    const uint8_t *data = pdu + 2;
    bool bits = readsBits(request.function());
    for (int i = 0; i < q; ++i)
        cells[i] = bits ? (data[i / 8] >> (i % 8)) & 1 : static_cast<uint16_t>(get16(data + 2 * i));
}

const char *exceptionName(int code)
{
    switch (code) {
    case 1: return "illegal function";
    case 2: return "illegal data address";
    case 3: return "illegal data value";
    case 4: return "server device failure";
    case 5: return "acknowledge";
    case 6: return "server device busy";
    case 8: return "memory parity error";
    case 0x0A: return "gateway path unavailable";
    case 0x0B: return "gateway target device failed to respond";
    default: return "unknown";
    }
}

}  // namespace lumbra::modbus
