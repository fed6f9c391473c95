// The exported entry points. The gateway loads a private copy of this file per
// link, so one Master per loaded copy is the link's whole state.
#define LUMBRA_DRIVER_DECLARE_ENTRY_POINTS
#include <lumbra/driver.h>

#include "master.h"

#define LUMBRA_EXPORT __attribute__((visibility("default")))

namespace {

lumbra::modbus::Master g_master;

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
    return g_master.initProperty(info, info_size);
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
    return guarded(-1, [&] { return g_master.getData(station, reg, addr, count, data, len); });
}

LUMBRA_EXPORT int intf_setData(int station, const char *reg, int addr, int count, const unsigned char *data, int len)
{
    return guarded(-1, [&] { return g_master.setData(station, reg, addr, count, data, len); });
}

LUMBRA_EXPORT void intf_setAddrValueChangeCallBack(lumbra_value_changed_cb cb)
{
    g_master.setCallback(cb);
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
