// The driver plug-in loaded with dlopen, and the link thread's side of an
// exchange with a peer. Only one test file includes it.
#pragma once

#include <lumbra/driver.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace modbus_test {

using Bytes = std::vector<uint8_t>;

constexpr int kStation = 17;
constexpr int kReplyTimeoutMs = 300;

// One dlopen'ed copy of a driver file.
class Driver {
    std::unique_ptr<void, int (*)(void *)> m_handle;
    template <typename T>
    T sym(const char *name) const
    {
        return m_handle ? reinterpret_cast<T>(dlsym(m_handle.get(), name)) : nullptr;
    }

public:
    explicit Driver(const std::string &path) : m_handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL), dlclose) {}
    bool loaded() const { return m_handle != nullptr; }

    int init(int linkId, int retries, int size = sizeof(LUMBRA_LINK_INFO))
    {
        LUMBRA_LINK_INFO info{};
        info.abi_version = LUMBRA_DRIVER_ABI_VERSION;
        info.link_id = linkId;
        info.plc_id = 1;
        info.retry_times = retries;
        return initProperty(reinterpret_cast<unsigned char *>(&info), nullptr, nullptr, &size, nullptr, nullptr);
    }

    const intf_initProperty_t initProperty = sym<intf_initProperty_t>("intf_initProperty");
    const intf_SetDriverPropertyPage_t setProperty = sym<intf_SetDriverPropertyPage_t>("intf_SetDriverPropertyPage");
    const intf_checkAddrValidity_t checkAddr = sym<intf_checkAddrValidity_t>("intf_checkAddrValidity");
    const intf_addrMerge_t merge = sym<intf_addrMerge_t>("intf_addrMerge");
    const intf_getSendFrame_t getSendFrame = sym<intf_getSendFrame_t>("intf_getSendFrame");
    const intf_dealRcvFrame_t dealRcvFrame = sym<intf_dealRcvFrame_t>("intf_dealRcvFrame");
    const intf_getData_t getData = sym<intf_getData_t>("intf_getData");
    const intf_setData_t setData = sym<intf_setData_t>("intf_setData");
    const intf_setAddrValueChangeCallBack_t setCallback =
        sym<intf_setAddrValueChangeCallBack_t>("intf_setAddrValueChangeCallBack");
    const inft_setDisconnect_t setDisconnect = sym<inft_setDisconnect_t>("inft_setDisconnect");
};

inline KEY_ADDRESS key(const char *reg, const char *addr, int len = 1, int station = kStation)
{
    KEY_ADDRESS k{};
    std::snprintf(k.reg, sizeof k.reg, "%s", reg);
    std::snprintf(k.addr, sizeof k.addr, "%s", addr);
    k.station = station;
    k.index = -1;
    k.len = len;
    return k;
}

// Gives a tampered RTU reply a good CRC again, so that the planted fault is
// its only one. TCP replies carry none.
inline void reseal(Bytes &r, bool tcp)
{
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i + 2 < r.size(); ++i) {
        crc ^= r[i];
        for (int b = 0; b < 8; ++b)
            crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    if (!tcp && r.size() >= 3) {
        r[r.size() - 2] = static_cast<uint8_t>(crc);
        r[r.size() - 1] = static_cast<uint8_t>(crc >> 8);
    }
}

// What arrives on fd within timeoutMs, ended by a short silence after data:
// a reply as the link thread's port collects it.
inline Bytes receive(int fd, int timeoutMs)
{
    Bytes got;
    uint8_t buf[512];
    for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, timeoutMs) > 0; timeoutMs = 20) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            break;
        got.insert(got.end(), buf, buf + n);
    }
    return got;
}

// The station text of the last reply the driver was handed.
inline std::string lastStationText;

// One exchange as the link thread runs it: drop stale input, frame out, reply
// in (tampered with if asked), reply to the driver. Returns the driver's
// result, or 0 when it had nothing to send.
inline int exchange(Driver &d, int fd, const std::function<void(Bytes &)> &tamper = {}, FRAME_PRO *sent = nullptr)
{
    FRAME_PRO frame{};
    if (!d.getSendFrame(&frame) || frame.len < 1 || frame.len >= LUMBRA_FRAME_SIZE)
        return 0;
    if (sent)
        *sent = frame;
    receive(fd, 0);
    if (write(fd, frame.data, static_cast<size_t>(frame.len)) != frame.len)
        return -1;
    Bytes reply = receive(fd, kReplyTimeoutMs);
    if (tamper)
        tamper(reply);
    char text[16] = {};
    int result = d.dealRcvFrame(reply.data(), static_cast<int>(reply.size()), text, sizeof text);
    lastStationText = text;
    if (result == LUMBRA_RESULT_STATION_FAILED)
        d.setDisconnect();
    return result;
}

}  // namespace modbus_test
