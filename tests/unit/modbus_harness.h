// The driver plug-in loaded with dlopen, the link thread's side of an
// exchange, and a device in the test process that answers the driver's
// frames so a test can shape every byte that goes back.
#pragma once

#include <lumbra/driver.h>

#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace modbus_test {

using Bytes = std::vector<uint8_t>;

constexpr int kStation = 17;
constexpr int kReplyTimeoutMs = 300;
// What exchange() returns for a frame that gets no reply (a broadcast).
constexpr int kSentWithoutReply = 1000;

struct LinkOptions {
    int linkId = 7;
    int retries = 1;
    int abi = LUMBRA_DRIVER_ABI_VERSION;
    int dataConver = 0;
    const char *stationConver = "";
    int addressMode = 0;
    int addressStep = 0;
};

// Log lines the driver handed to its callback.
inline std::vector<std::string> logLines;

inline void keepLogLine(int, int, const char *text)
{
    logLines.emplace_back(text);
}

inline int logCount(const std::string &needle)
{
    int n = 0;
    for (const std::string &l : logLines)
        n += l.find(needle) != std::string::npos;
    return n;
}

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

    int init(const LinkOptions &o, int size = sizeof(LUMBRA_LINK_INFO))
    {
        LUMBRA_LINK_INFO info{};
        info.abi_version = o.abi;
        info.link_id = o.linkId;
        info.plc_id = 1;
        info.retry_times = o.retries;
        info.data_conver = o.dataConver;
        info.address_mode = o.addressMode;
        info.address_step = o.addressStep;
        std::snprintf(info.station_data_conver, sizeof info.station_data_conver, "%s", o.stationConver);
        return initProperty(reinterpret_cast<unsigned char *>(&info), nullptr, nullptr, &size, nullptr, nullptr);
    }
    int init(int linkId, int retries)
    {
        LinkOptions o;
        o.linkId = linkId;
        o.retries = retries;
        return init(o);
    }

    const intf_initProperty_t initProperty = sym<intf_initProperty_t>("intf_initProperty");
    const intf_SetDriverPropertyPage_t setProperty = sym<intf_SetDriverPropertyPage_t>("intf_SetDriverPropertyPage");
    const intf_checkAddrValidity_t checkAddr = sym<intf_checkAddrValidity_t>("intf_checkAddrValidity");
    const intf_addrMerge_t merge = sym<intf_addrMerge_t>("intf_addrMerge");
    const intf_addConditionRead_t conditionRead = sym<intf_addConditionRead_t>("intf_addConditionRead");
    const intf_getSendFrame_t getSendFrame = sym<intf_getSendFrame_t>("intf_getSendFrame");
    const intf_dealRcvFrame_t dealRcvFrame = sym<intf_dealRcvFrame_t>("intf_dealRcvFrame");
    const intf_getData_t getData = sym<intf_getData_t>("intf_getData");
    const intf_setData_t setData = sym<intf_setData_t>("intf_setData");
    const intf_getValue_t getValue = sym<intf_getValue_t>("intf_getValue");
    const intf_setValue_t setValue = sym<intf_setValue_t>("intf_setValue");
    const intf_writeState_t writeState = sym<intf_writeState_t>("intf_writeState");
    const intf_cancelWrite_t cancelWrite = sym<intf_cancelWrite_t>("intf_cancelWrite");
    const intf_setLogCallBack_t setLogCallback = sym<intf_setLogCallBack_t>("intf_setLogCallBack");
    const intf_setAddrValueChangeCallBack_t setCallback =
        sym<intf_setAddrValueChangeCallBack_t>("intf_setAddrValueChangeCallBack");
    const inft_setDisconnect_t setDisconnect = sym<inft_setDisconnect_t>("inft_setDisconnect");

    // The index of an address text, -1 when the driver refuses it.
    int indexOf(const char *reg, const char *addr)
    {
        int index = -1;
        return checkAddr(reg, addr, &index, kStation, 0) == LUMBRA_ADDR_OK ? index : -1;
    }
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

inline uint16_t crc16(const uint8_t *p, size_t n)
{
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int b = 0; b < 8; ++b)
            crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    return crc;
}

// Gives a tampered reply a consistent frame again (RTU CRC, TCP MBAP
// length), so that the planted fault is its only one.
inline void reseal(Bytes &r, bool tcp)
{
    if (tcp && r.size() >= 7) {
        r[4] = static_cast<uint8_t>((r.size() - 6) >> 8);
        r[5] = static_cast<uint8_t>(r.size() - 6);
    } else if (!tcp && r.size() >= 3) {
        uint16_t crc = crc16(r.data(), r.size() - 2);
        r[r.size() - 2] = static_cast<uint8_t>(crc);
        r[r.size() - 1] = static_cast<uint8_t>(crc >> 8);
    }
}

// The station text of the last reply the driver was handed.
inline std::string lastStationText;

inline int deal(Driver &d, const Bytes &buffer)
{
    char text[16] = {};
    int result = d.dealRcvFrame(buffer.empty() ? nullptr : buffer.data(), static_cast<int>(buffer.size()), text,
                                sizeof text);
    lastStationText = text;
    if (result == LUMBRA_RESULT_STATION_FAILED)
        d.setDisconnect();
    return result;
}

// A reply that is all there will be: handed once and, if the driver wants
// more, the time-out follows.
inline int deliver(Driver &d, const Bytes &reply)
{
    int result = deal(d, reply);
    return result == LUMBRA_RESULT_NEED_MORE ? deal(d, {}) : result;
}

// What arrives on fd within timeoutMs, ended by a short silence after data.
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

// The link thread's receive: every read is handed with all before it until
// the driver has its reply or the reply time-out passed.
inline int receiveReply(Driver &d, int fd)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(kReplyTimeoutMs);
    Bytes buffer;
    uint8_t chunk[512];
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
            return deal(d, {});
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0)
            return deal(d, {});
        buffer.insert(buffer.end(), chunk, chunk + n);
        int result = deal(d, buffer);
        if (result != LUMBRA_RESULT_NEED_MORE)
            return result;
    }
}

// One exchange as the link thread runs it: frame out, then `carry` takes it
// to the peer and the reply back. Returns the driver's result, 0 when it had
// nothing to send, kSentWithoutReply for a broadcast.
template <typename Carry>
int exchangeBy(Driver &d, FRAME_PRO *sent, Carry carry)
{
    FRAME_PRO frame{};
    int kind = d.getSendFrame(&frame);
    if (!kind || frame.len < 1 || frame.len >= LUMBRA_FRAME_SIZE)
        return 0;
    if (sent)
        *sent = frame;
    return carry(frame, kind == LUMBRA_FRAME_NO_REPLY);
}

// With a peer on fd: stale input dropped first, the reply tampered with if asked.
inline int exchange(Driver &d, int fd, const std::function<void(Bytes &)> &tamper = {}, FRAME_PRO *sent = nullptr)
{
    return exchangeBy(d, sent, [&](const FRAME_PRO &frame, bool noReply) {
        receive(fd, 0);
        if (write(fd, frame.data, static_cast<size_t>(frame.len)) != frame.len)
            return -1;
        if (noReply)
            return kSentWithoutReply;
        if (!tamper)
            return receiveReply(d, fd);
        Bytes reply = receive(fd, kReplyTimeoutMs);
        tamper(reply);
        return deliver(d, reply);
    });
}

// A device inside the test: holding registers and coils that exist answer,
// others get exception 2; `exception` answers everything with that code.
struct FakeDevice {
    bool tcp = true;
    int unit = kStation;
    std::map<int, uint16_t> holding;
    std::map<int, bool> coils;
    int exception = 0;
    bool silent = false;
    std::vector<Bytes> requests;  // PDUs in the order they came

    void setRange(int first, int count, uint16_t value = 0)
    {
        for (int a = first; a < first + count; ++a)
            holding[a] = value;
    }

    // The reply frame to a request frame; empty when none goes back.
    Bytes answer(const FRAME_PRO &f)
    {
        size_t head = tcp ? 7 : 1, tail = tcp ? 0 : 2;
        if (static_cast<size_t>(f.len) < head + tail + 1)
            return {};
        int station = f.data[head - 1];
        Bytes pdu(f.data + head, f.data + f.len - tail);
        requests.push_back(pdu);
        if (silent || (station != unit && !(!tcp && station == 0)))
            return {};
        Bytes reply = exception ? Bytes{static_cast<uint8_t>(pdu[0] | 0x80), static_cast<uint8_t>(exception)}
                                : serve(pdu);
        if (!tcp && station == 0)
            return {};
        return frame(f, reply);
    }

    Bytes frame(const FRAME_PRO &request, const Bytes &pdu) const
    {
        Bytes r;
        if (tcp)
            r = {request.data[0], request.data[1], 0, 0, 0, 0, static_cast<uint8_t>(unit)};
        else
            r = {static_cast<uint8_t>(unit)};
        r.insert(r.end(), pdu.begin(), pdu.end());
        if (!tcp)
            r.resize(r.size() + 2);
        reseal(r, tcp);
        return r;
    }

private:
    static int get16(const Bytes &p, size_t at) { return p[at] << 8 | p[at + 1]; }
    static Bytes refuse(const Bytes &pdu) { return {static_cast<uint8_t>(pdu[0] | 0x80), 2}; }

    bool exists(bool bits, int start, int count) const
    {
        for (int a = start; a < start + count; ++a)
            if (bits ? !coils.count(a) : !holding.count(a))
                return false;
        return true;
    }

    Bytes serve(const Bytes &pdu)
    {
        const uint8_t fc = pdu[0];
        const bool bits = fc == 1 || fc == 2 || fc == 5 || fc == 15;
        const int start = get16(pdu, 1), qty = (fc == 5 || fc == 6 || fc == 22) ? 1 : get16(pdu, 3);
        if (!exists(bits, start, qty))
            return refuse(pdu);
        Bytes r{fc};
        if (fc <= 4) {
            r.push_back(static_cast<uint8_t>(bits ? (qty + 7) / 8 : qty * 2));
            r.resize(2 + r[1]);
            for (int i = 0; i < qty; ++i) {
                if (bits) {
                    r[2 + i / 8] |= static_cast<uint8_t>(coils[start + i] << (i % 8));
                } else {
                    r[2 + 2 * i] = static_cast<uint8_t>(holding[start + i] >> 8);
                    r[3 + 2 * i] = static_cast<uint8_t>(holding[start + i]);
                }
            }
            return r;
        }
        for (int i = 0; i < qty; ++i) {
            if (fc == 5)
                coils[start] = get16(pdu, 3) == 0xFF00;
            else if (fc == 6)
                holding[start] = static_cast<uint16_t>(get16(pdu, 3));
            else if (fc == 15)
                coils[start + i] = (pdu[6 + i / 8] >> (i % 8)) & 1;
            else if (fc == 16)
                holding[start + i] = static_cast<uint16_t>(get16(pdu, 6 + 2 * i));
            else if (fc == 22)
                holding[start] = static_cast<uint16_t>((holding[start] & get16(pdu, 3)) | get16(pdu, 5));
        }
        return pdu.size() > 5 && fc != 22 ? Bytes(pdu.begin(), pdu.begin() + 5) : pdu;
    }
};

// With a FakeDevice: the same steps without a line.
inline int exchange(Driver &d, FakeDevice &dev, const std::function<void(Bytes &)> &tamper = {},
                    FRAME_PRO *sent = nullptr)
{
    return exchangeBy(d, sent, [&](const FRAME_PRO &frame, bool noReply) {
        Bytes reply = dev.answer(frame);
        if (noReply)
            return kSentWithoutReply;
        if (tamper)
            tamper(reply);
        return deliver(d, reply);
    });
}

}  // namespace modbus_test
