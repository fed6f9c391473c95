#include "linksetup.h"

#include "text.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace lumbra::modbus {

namespace {

constexpr int kMaxRetries = 100;
constexpr int kMaxAddressStep = 16;

AddressFormat addressFormat(int mode, int step, Log &log)
{
    AddressFormat f;
    if (mode == 1)
        f.base = 1;
    else if (mode != 0)
        log.line(LUMBRA_LOG_WARN, "address_mode %d is not 0 or 1: addresses are taken as 0-based", mode);
    if (step >= 2 && step <= kMaxAddressStep)
        f.step = step;
    else if (step != 0 && step != 1)
        log.line(LUMBRA_LOG_WARN, "address_step %d is not 0..16: consecutive registers are taken as 1 apart", step);
    return f;
}

// "2:1,5:6" (or separated by ';' and blanks): a station and its code.
void readStationCodes(const char *text, Log &log, std::array<int16_t, kStationCount> *codes)
{
    for (const std::string &pair : splitTokens(text, ",; \t")) {
        size_t colon = pair.find(':');
        int station = 0, code = 0;
        if (colon == std::string::npos || !parseInt(pair.substr(0, colon), 0, kStationCount - 1, &station) ||
            !parseInt(pair.substr(colon + 1), 0, 0xFFFF, &code)) {
            log.line(LUMBRA_LOG_WARN, "station_data_conver: \"%s\" is not station:code, skipped", pair.c_str());
            continue;
        }
        (*codes)[static_cast<size_t>(station)] = static_cast<int16_t>(code & 7);
    }
}

}  // namespace

bool readLinkInfo(const unsigned char *info, const int *size, Log &log, LinkSetup *out)
{
    if (!info || !size || *size < static_cast<int>(sizeof(LUMBRA_LINK_INFO)))
        return false;
    LUMBRA_LINK_INFO record;
    std::memcpy(&record, info, sizeof record);
    if (record.abi_version < 1)
        return false;
    // The texts are fixed-size and may come without a terminator.
    char stationCodes[sizeof record.station_data_conver + 1] = {};
    std::memcpy(stationCodes, record.station_data_conver, sizeof record.station_data_conver);

    LinkSetup link;
    link.abi = record.abi_version;
    link.linkId = record.link_id;
    log.setLink(link.linkId);
    link.plcId = record.plc_id;
    link.retries = std::clamp(static_cast<int>(record.retry_times), 0, kMaxRetries);
    link.format = addressFormat(record.address_mode, record.address_step, log);
    link.dataConver = record.data_conver > 0 ? record.data_conver & 7 : 0;
    readStationCodes(stationCodes, log, &link.stationCodes);
    *out = link;
    return true;
}

Order orderFor(const LinkSetup &link, const Settings &s, int station)
{
    int own = station >= 0 && station < kStationCount ? link.stationCodes[static_cast<size_t>(station)] : -1;
    if (own >= 0)
        return orderFromCode(own);
    Order o = orderFromCode(link.dataConver);
    if (s.wordOrder >= 0)
        o.lowWordFirst = s.wordOrder;
    if (s.byteSwap >= 0)
        o.byteSwap = s.byteSwap;
    return o;
}

}  // namespace lumbra::modbus
