/* A driver that exports almost nothing, and its disconnect hook under the
 * name a careless author would pick ("intf_" instead of "inft_"). */
#include "lumbra/driver.h"

int partial_disconnects;

int intf_getSendFrame(FRAME_PRO *f)
{
    f->len = 0;
    return 0;
}

void intf_setDisconnect(void)
{
    ++partial_disconnects;
}
