// Answers one request from the map: the unit filter, the request log, the
// mirroring after writes and the configured faults, the same for every
// transport.
#pragma once

#include <modbus.h>

#include <cstdint>
#include <random>

namespace plcsim {

class FaultMap;
class PlcMap;
struct Options;

class Responder {
public:
    // A TCP unit also answers 255, the id of "the device itself". opts (its
    // fault map) must outlive the responder.
    Responder(PlcMap &map, const Options &opts);

    // Answers req (len bytes, as modbus_receive() gave it) on ctx's
    // descriptor; false when the reply could not be sent.
    bool answer(modbus_t *ctx, const uint8_t *req, int len);
    bool verbose() const { return m_verbose; }

private:
    bool forUs(int unit) const;
    void log(const uint8_t *pdu, int pduLen, int unit, bool ignored, int exception) const;
    void sendNoise(int fd);

    PlcMap &m_map;
    const FaultMap &m_faults;
    int m_unit;
    bool m_tcp;
    bool m_verbose;
    int m_replyUnit;
    int m_noise;
    long m_noiseGapNs;
    std::minstd_rand m_random;
};

}  // namespace plcsim
