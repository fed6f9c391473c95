/*
 * A driver whose answers are scripted through its property text, so tests
 * can walk the link thread through every result code:
 *   "results=1,3,2;station=7;setup=5-9600-8-1-NONE-232"
 * Results repeat from the start when the list runs out. Counters and a
 * per-copy global are read back through intf_getData (register "CNT"/"G").
 */
#define LUMBRA_DRIVER_DECLARE_ENTRY_POINTS
#include "lumbra/driver.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { CNT_DEALT, CNT_DISCONNECT, CNT_FRAMES, CNT_LAST_LEN, CNT_MERGED, CNT_CODE, CNT_CODE_CALLS, CNT_MPI_INIT,
       CNT_MPI_DEAL, CNT_MAX };

static int g_results[32] = {1};
static int g_resultCount = 1;
static int g_next;
static char g_station[16] = "1";
static char g_setup[128];
static int g_counters[CNT_MAX];
static int g_global;
static int g_pendingReply;
static int g_linkId = -1;

static void parseResults(const char *list)
{
    g_resultCount = 0;
    while (*list && *list != ';' && g_resultCount < 32) {
        g_results[g_resultCount++] = atoi(list);
        while (*list && *list != ',' && *list != ';')
            ++list;
        if (*list == ',')
            ++list;
    }
    if (g_resultCount == 0)
        g_results[g_resultCount++] = 1;
}

static void copyValue(char *dst, size_t size, const char *src)
{
    size_t n = strcspn(src, ";");
    if (n >= size)
        n = size - 1;
    memcpy(dst, src, n);
    dst[n] = '\0';
}

int intf_SetDriverPropertyPage(const char *p)
{
    for (; p && *p; p += strcspn(p, ";"), p += (*p == ';')) {
        if (strncmp(p, "results=", 8) == 0)
            parseResults(p + 8);
        else if (strncmp(p, "station=", 8) == 0)
            copyValue(g_station, sizeof g_station, p + 8);
        else if (strncmp(p, "setup=", 6) == 0)
            copyValue(g_setup, sizeof g_setup, p + 6);
    }
    return 1;
}

int intf_initProperty(unsigned char *info, unsigned char *r1, unsigned char *r2, int *size, char *text, void *m)
{
    (void)r1, (void)r2, (void)text, (void)m;
    if (info && size && *size >= (int)sizeof(LUMBRA_LINK_INFO))
        g_linkId = ((LUMBRA_LINK_INFO *)info)->link_id;
    return 1;
}

int intf_getSendFrame(FRAME_PRO *f)
{
    const char *text = g_pendingReply ? "RSP" : "REQ";
    g_pendingReply = 0;
    f->len = (int32_t)snprintf((char *)f->data, sizeof f->data, "%s%d", text, g_counters[CNT_FRAMES]++);
    return 1;
}

int intf_dealRcvFrame(const unsigned char *data, int len, char *text, int size)
{
    (void)data;
    int result = g_results[g_next++ % g_resultCount];
    g_counters[CNT_DEALT]++;
    g_counters[CNT_LAST_LEN] = len;
    if (result == LUMBRA_RESULT_SLAVE_REPLY)
        g_pendingReply = 1;
    snprintf(text, (size_t)size, "%s", result == LUMBRA_RESULT_NEW_PORT_SETUP ? g_setup : g_station);
    return result;
}

void inft_setDisconnect(void)
{
    g_counters[CNT_DISCONNECT]++;
}

int intf_setData(int station, const char *reg, int addr, int count, const unsigned char *data, int len)
{
    (void)station, (void)addr, (void)count;
    if (!data) { /* a status code from the link thread in len */
        g_counters[CNT_CODE] = len;
        g_counters[CNT_CODE_CALLS]++;
        return 1;
    }
    if (reg && strcmp(reg, "G") == 0 && len >= 4) {
        memcpy(&g_global, data, 4);
        return 1;
    }
    return -1;
}

int intf_getData(int station, const char *reg, int addr, int count, unsigned char *data, int len)
{
    (void)station, (void)count;
    int value;
    if (!reg || !data || len < 4)
        return -1;
    if (strcmp(reg, "G") == 0)
        value = g_global;
    else if (strcmp(reg, "CNT") == 0 && addr >= 0 && addr < CNT_MAX)
        value = g_counters[addr];
    else if (strcmp(reg, "LINK") == 0)
        value = g_linkId;
    else
        return -1;
    memcpy(data, &value, 4);
    return 1;
}

int intf_checkAddrValidity(const char *reg, const char *addr, int *index, int station, int mode)
{
    (void)station, (void)mode;
    if (strcmp(reg, "BIT") == 0 && strchr(addr, '.'))
        return LUMBRA_ADDR_RETRY_PLAIN;
    *index = atoi(addr) * 100 + (strchr(addr, '.') ? atoi(strchr(addr, '.') + 1) : 99);
    return LUMBRA_ADDR_OK;
}

int intf_addrMerge(KEY_ADDRESS *list, int count)
{
    (void)list;
    g_counters[CNT_MERGED] = count;
    return 1;
}

int intf_mpiInit(char *text, int a, int b, int c, int d, int e, int f)
{
    (void)text, (void)a, (void)b, (void)c, (void)d, (void)e, (void)f;
    g_counters[CNT_MPI_INIT]++;
    return 0;
}

int intf_mpiDeal(void)
{
    g_counters[CNT_MPI_DEAL]++;
    return 0;
}

int intf_setFunc(int id, void *arg)
{
    (void)id, (void)arg;
    return 0;
}
