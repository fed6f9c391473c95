// The exported entry points. The gateway loads a private copy of this file per
// link, so one Master per loaded copy is the link's whole state.
#define LUMBRA_DRIVER_DECLARE_ENTRY_POINTS
#include <lumbra/driver.h>

#include "master.h"

#define LUMBRA_EXPORT __attribute__((visibility("default")))

namespace {

#if defined(LUMBRA_MODBUS_FRAMING_TCP)
lumbra::modbus::Master g_master(lumbra::modbus::Framing::Tcp);
#else
lumbra::modbus::Master g_master(lumbra::modbus::Framing::Rtu);
#endif

// Nothing may unwind into the gateway's C frames; the only thing that can
// throw in here is an allocation.
template <typename Fn>
int guarded(int failure, Fn fn)
{
    try {
        return fn();
    } catch (...) {
        return failure;
    }
}

}  // namespace

extern "C" {

LUMBRA_EXPORT int intf_initProperty(unsigned char *info, unsigned char *, unsigned char *, int *info_size, char *, void *)
{
    return guarded(-1, [&] { return g_master.initProperty(info, info_size); });
}

LUMBRA_EXPORT int intf_SetDriverPropertyPage(const char *property)
{
    return guarded(-1, [&] { return g_master.setProperty(property); });
}

LUMBRA_EXPORT int intf_checkAddrValidity(const char *reg, const char *addr, int *index, int station, int)
{
    return g_master.checkAddress(reg, addr, index, station);
}

LUMBRA_EXPORT int intf_addrMerge(KEY_ADDRESS *list, int count)
{
    return guarded(-1, [&] { return g_master.merge(list, count); });
}

LUMBRA_EXPORT int intf_addConditionRead(const KEY_ADDRESS *list, int count)
{
    return guarded(-1, [&] { return g_master.addConditionRead(list, count); });
}

LUMBRA_EXPORT int intf_getSendFrame(FRAME_PRO *frame)
{
    return guarded(0, [&] { return g_master.nextFrame(frame); });
}

LUMBRA_EXPORT int intf_dealRcvFrame(const unsigned char *data, int len, char *text, int text_size)
{
    return guarded(LUMBRA_RESULT_INCOMPLETE, [&] { return g_master.onReply(data, len, text, text_size); });
}

LUMBRA_EXPORT int intf_getData(int station, const char *reg, int addr, int count, unsigned char *data, int len)
{
    return guarded(-1,
                   [&] { return g_master.getValue(station, reg, addr, count, LUMBRA_KIND_RAW, data, len, nullptr); });
}

LUMBRA_EXPORT int intf_setData(int station, const char *reg, int addr, int count, const unsigned char *data, int len)
{
    return guarded(-1,
                   [&] { return g_master.setValue(station, reg, addr, count, LUMBRA_KIND_RAW, data, len, nullptr); });
}

LUMBRA_EXPORT int intf_getValue(int station, const char *reg, int addr, int count, int kind, unsigned char *data,
                                int len, int *quality)
{
    return guarded(-1, [&] { return g_master.getValue(station, reg, addr, count, kind, data, len, quality); });
}

LUMBRA_EXPORT int intf_setValue(int station, const char *reg, int addr, int count, int kind,
                                const unsigned char *data, int len, int *ticket)
{
    return guarded(-1, [&] { return g_master.setValue(station, reg, addr, count, kind, data, len, ticket); });
}

LUMBRA_EXPORT int intf_writeState(int ticket, char *text, int text_size)
{
    return g_master.writeState(ticket, text, text_size);
}

LUMBRA_EXPORT void intf_cancelWrite(int ticket)
{
    guarded(0, [&] {
        g_master.cancelWrite(ticket);
        return 0;
    });
}

LUMBRA_EXPORT void intf_setAddrValueChangeCallBack(lumbra_value_changed_cb cb)
{
    g_master.setCallback(cb);
}

LUMBRA_EXPORT void intf_setLogCallBack(lumbra_log_cb cb)
{
    guarded(0, [&] {
        g_master.setLogSink(cb);
        return 0;
    });
}

LUMBRA_EXPORT int intf_abiVersion(void)
{
    return LUMBRA_DRIVER_ABI_VERSION;
}

LUMBRA_EXPORT void inft_setDisconnect(void)
{
    g_master.disconnect();
}

LUMBRA_EXPORT int intf_setFunc(int, void *)
{
    return 0;
}

}  // extern "C"
