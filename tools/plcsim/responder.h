// Answers one request from the map: the unit filter, the request log and the
// mirroring after writes, the same for every transport.
#pragma once

#include <modbus.h>

#include <cstdint>

namespace plcsim {

class PlcMap;

class Responder {
public:
    // tcp: a TCP unit also answers 255, the id of "the device itself".
    Responder(PlcMap &map, int unit, bool tcp, bool verbose);

    // Answers req (len bytes, as modbus_receive() gave it) on ctx's
    // descriptor; false when the reply could not be sent.
    bool answer(modbus_t *ctx, const uint8_t *req, int len);
    bool verbose() const { return m_verbose; }

private:
    bool forUs(int unit) const;
    void log(const uint8_t *pdu, int pduLen, int unit, bool ignored) const;

    PlcMap &m_map;
    int m_unit;
    bool m_tcp;
    bool m_verbose;
};

}  // namespace plcsim
