#include "responder.h"

#include "options.h"
#include "plcmap.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace plcsim {

namespace {

const int kTcpDeviceUnit = 0xFF;
const int kBitsPerChar = 11;  // start, 8 data, parity or second stop, stop
const long kMinGapNs = 1000000;

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

Responder::Responder(PlcMap &map, const Options &opts)
    : m_map(map),
      m_faults(opts.faults),
      m_unit(opts.unit),
      m_tcp(!opts.rtu),
      m_verbose(opts.verbose),
      m_replyUnit(opts.replyUnit),
      m_noise(opts.noise),
      // Two character times of silence, so a master that frames by gaps can
      // tell the junk from the reply.
      m_noiseGapNs(std::max(kMinGapNs, 2L * kBitsPerChar * 1000000000L / opts.baud)),
      m_random(static_cast<unsigned>(::getpid()))
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
    if (header < 1 || len <= header || len > MODBUS_MAX_ADU_LENGTH)
        return true;
    const int unit = req[header - 1];
    const bool ours = forUs(unit);
    const int exception = ours ? m_faults.exceptionFor(req + header, len - header) : 0;
    if (m_verbose)
        log(req + header, len - header, unit, !ours, exception);
    const bool broadcast = !m_tcp && unit == 0;
    // A refused broadcast changes nothing and, like every broadcast, is not answered.
    if (!ours || (broadcast && exception != 0))
        return true;
    uint8_t copy[MODBUS_MAX_ADU_LENGTH];
    std::memcpy(copy, req, static_cast<size_t>(len));
    if (m_replyUnit >= 0)
        copy[header - 1] = static_cast<uint8_t>(m_replyUnit);
    if (m_noise > 0 && !broadcast)
        sendNoise(modbus_get_socket(ctx));
    const int sent = exception != 0 ? modbus_reply_exception(ctx, copy, static_cast<unsigned>(exception))
                                    : modbus_reply(ctx, copy, len, m_map.raw());
    if (sent < 0)
        return false;
    if (exception == 0 && isWrite(req[header]))
        m_map.mirror();
    return true;
}

void Responder::sendNoise(int fd)
{
    uint8_t junk[256];
    for (int i = 0; i < m_noise; ++i)
        junk[i] = static_cast<uint8_t>(m_random());
    // The line is non-blocking; junk that does not fit is simply less junk.
    if (::write(fd, junk, static_cast<size_t>(m_noise)) < 0 && m_verbose)
        std::printf("plcsim: noise not sent\n");
    const timespec gap{0, m_noiseGapNs};
    nanosleep(&gap, nullptr);
}

void Responder::log(const uint8_t *pdu, int pduLen, int unit, bool ignored, int exception) const
{
    const int function = pdu[0];
    char note[40] = "";
    if (ignored)
        std::snprintf(note, sizeof note, " (ignored: not our unit)");
    else if (exception != 0)
        std::snprintf(note, sizeof note, " -> exception %d", exception);
    if (pduLen < 5) {
        std::printf("plcsim: unit %d fc %d%s\n", unit, function, note);
        return;
    }
    const bool single = function == MODBUS_FC_WRITE_SINGLE_COIL || function == MODBUS_FC_WRITE_SINGLE_REGISTER;
    std::printf("plcsim: unit %d fc %d addr %d count %d%s\n", unit, function, word(pdu + 1),
                single ? 1 : word(pdu + 3), note);
}

}  // namespace plcsim
