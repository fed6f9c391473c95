// What the gateway's link record (LUMBRA_LINK_INFO) means to this driver.
#pragma once

#include "address.h"
#include "codec.h"
#include "log.h"
#include "settings.h"

#include <array>
#include <cstdint>

namespace lumbra::modbus {

struct LinkSetup {
    int abi = 0;
    int linkId = 0;
    int plcId = 1;
    int retries = 0;
    AddressFormat format;
    int dataConver = 0;
    std::array<int16_t, kStationCount> stationCodes;  // -1: the link's code
    LinkSetup() { stationCodes.fill(-1); }
    bool abi2() const { return abi >= 2; }
};

// False when the record is too short or from a gateway without an ABI
// version; faults in its texts are logged and skipped.
bool readLinkInfo(const unsigned char *info, const int *size, Log &log, LinkSetup *out);
// A station's own code wins; else the link's data_conver with what
// driver_property says about word order and byte swap on top.
Order orderFor(const LinkSetup &link, const Settings &s, int station);

}  // namespace lumbra::modbus
