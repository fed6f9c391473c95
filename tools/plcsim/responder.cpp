#include "responder.h"

#include "plcmap.h"

#include <cstdio>

namespace plcsim {

namespace {

const int kTcpDeviceUnit = 0xFF;

bool isWrite(int function)
{
    switch (function) {
    case MODBUS_FC_WRITE_SINGLE_COIL:
    case MODBUS_FC_WRITE_SINGLE_REGISTER:
    case MODBUS_FC_WRITE_MULTIPLE_COILS:
    case MODBUS_FC_WRITE_MULTIPLE_REGISTERS:
    case MODBUS_FC_MASK_WRITE_REGISTER:
    case MODBUS_FC_WRITE_AND_READ_REGISTERS:
        return true;
    default:
        return false;
    }
}

int word(const uint8_t *p)
{
    return p[0] << 8 | p[1];
}

}  // namespace

Responder::Responder(PlcMap &map, int unit, bool tcp, bool verbose)
    : m_map(map), m_unit(unit), m_tcp(tcp), m_verbose(verbose)
{
}

bool Responder::forUs(int unit) const
{
    // RTU broadcasts (0) are carried out; libmodbus sends no reply to them.
    return unit == m_unit || (m_tcp ? unit == kTcpDeviceUnit : unit == 0);
}

bool Responder::answer(modbus_t *ctx, const uint8_t *req, int len)
{
    const int header = modbus_get_header_length(ctx);
    if (header < 1 || len <= header)
        return true;
    const int unit = req[header - 1];
    const bool ours = forUs(unit);
    if (m_verbose)
        log(req + header, len - header, unit, !ours);
    if (!ours)
        return true;
    if (modbus_reply(ctx, req, len, m_map.raw()) < 0)
        return false;
    if (isWrite(req[header]))
        m_map.mirror();
    return true;
}

void Responder::log(const uint8_t *pdu, int pduLen, int unit, bool ignored) const
{
    const int function = pdu[0];
    const char *note = ignored ? " (ignored: not our unit)" : "";
    if (pduLen < 5) {
        std::printf("plcsim: unit %d fc %d%s\n", unit, function, note);
        return;
    }
    const bool single = function == MODBUS_FC_WRITE_SINGLE_COIL || function == MODBUS_FC_WRITE_SINGLE_REGISTER;
    std::printf("plcsim: unit %d fc %d addr %d count %d%s\n", unit, function, word(pdu + 1),
                single ? 1 : word(pdu + 3), note);
}

}  // namespace plcsim
