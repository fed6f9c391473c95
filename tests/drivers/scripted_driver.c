/*
 * A driver whose answers are scripted through its property text, so tests
 * can walk the link thread through every result code:
 *   "results=1,3,2;station=7;setup=5-9600-8-1-NONE-232;need=6;noreply=1;quality=2;log=text"
 * Results repeat from the start when the list runs out. "need" asks for more
 * (NEED_MORE) until a reply holds that many bytes; "noreply" hands polls out
 * as frames without a reply; "quality" is what reads of register "Q" say;
 * "log" is logged at WARN through the gateway's callback.
 * Writes to register "W" go out as "WR<ticket>" before the next poll and are
 * confirmed by a reply starting "OK", refused by one starting "EX"; writes to
 * "B" are broadcasts; "G" is kept at once. Counters, a per-copy global and the last buffer are
 * read back through intf_getData (registers "CNT", "G", "BUF").
 * Built a second time without the ABI-2 entry points (SCRIPTED_ABI1).
 */
#define LUMBRA_DRIVER_DECLARE_ENTRY_POINTS
#include "lumbra/driver.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { CNT_DEALT, CNT_DISCONNECT, CNT_FRAMES, CNT_LAST_LEN, CNT_MERGED, CNT_CODE, CNT_CODE_CALLS, CNT_MPI_INIT,
       CNT_MPI_DEAL, CNT_EMPTY_CALLS, CNT_NEED_MORE, CNT_MERGED_STATIONS, CNT_CANCELLED, CNT_LAST_KIND, CNT_MAX };

enum { MAX_TICKETS = 64 };

static int g_results[32] = {1};
static int g_resultCount = 1;
static int g_next;
static char g_station[16] = "1";
static char g_setup[128];
static int g_counters[CNT_MAX];
static int g_global;
static int g_pendingReply;
static int g_linkId = -1;
static int g_need;
static int g_noReply;
static int g_quality;
static unsigned char g_lastBuf[LUMBRA_FRAME_SIZE];

/* Writes: state per ticket, and the one queued or in flight. */
static int g_ticketState[MAX_TICKETS];
static char g_ticketText[MAX_TICKETS][48];
static int g_queued;    /* ticket waiting to go out, 0 none */
static int g_inFlight;  /* ticket whose reply is awaited, 0 none */
static int g_queuedBroadcast;
static lumbra_log_cb g_log;

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

static void settle(int ticket, int state, const char *text)
{
    g_ticketState[ticket % MAX_TICKETS] = state;
    snprintf(g_ticketText[ticket % MAX_TICKETS], sizeof g_ticketText[0], "%s", text);
}

int intf_SetDriverPropertyPage(const char *p)
{
    char text[128];
    for (; p && *p; p += strcspn(p, ";"), p += (*p == ';')) {
        if (strncmp(p, "results=", 8) == 0)
            parseResults(p + 8);
        else if (strncmp(p, "station=", 8) == 0)
            copyValue(g_station, sizeof g_station, p + 8);
        else if (strncmp(p, "setup=", 6) == 0)
            copyValue(g_setup, sizeof g_setup, p + 6);
        else if (strncmp(p, "need=", 5) == 0)
            g_need = atoi(p + 5);
        else if (strncmp(p, "noreply=", 8) == 0)
            g_noReply = atoi(p + 8);
        else if (strncmp(p, "quality=", 8) == 0)
            g_quality = atoi(p + 8);
        else if (strncmp(p, "log=", 4) == 0 && g_log) {
            copyValue(text, sizeof text, p + 4);
            g_log(g_linkId, LUMBRA_LOG_WARN, text);
        }
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
    if (g_queued) {
        int ticket = g_queued;
        g_queued = 0;
        f->len = (int32_t)snprintf((char *)f->data, sizeof f->data, "%s%d", g_queuedBroadcast ? "BC" : "WR", ticket);
        if (g_queuedBroadcast) {
            settle(ticket, LUMBRA_WRITE_DONE, "");
            return LUMBRA_FRAME_NO_REPLY;
        }
        g_inFlight = ticket;
        return 1;
    }
    f->len = (int32_t)snprintf((char *)f->data, sizeof f->data, "%s%d", text, g_counters[CNT_FRAMES]++);
    return g_noReply ? LUMBRA_FRAME_NO_REPLY : 1;
}

static int dealWriteReply(const unsigned char *data, int len)
{
    int ticket = g_inFlight;
    g_inFlight = 0;
    if (g_ticketState[ticket % MAX_TICKETS] != LUMBRA_WRITE_PENDING)
        ; /* cancelled meanwhile: the answer changes nothing */
    else if (len >= 2 && memcmp(data, "OK", 2) == 0)
        settle(ticket, LUMBRA_WRITE_DONE, "");
    else if (len >= 2 && memcmp(data, "EX", 2) == 0)
        settle(ticket, LUMBRA_WRITE_FAILED, "exception 2 (illegal data address)");
    else
        settle(ticket, LUMBRA_WRITE_FAILED, "no reply");
    return len > 0 ? LUMBRA_RESULT_GOOD : LUMBRA_RESULT_STATION_FAILED;
}

int intf_dealRcvFrame(const unsigned char *data, int len, char *text, int size)
{
    int result;
    g_counters[CNT_LAST_LEN] = len;
    memcpy(g_lastBuf, data, len > 0 && len <= (int)sizeof g_lastBuf ? (size_t)len : 0);
    if (len == 0)
        g_counters[CNT_EMPTY_CALLS]++;
    if (g_inFlight) {
        snprintf(text, (size_t)size, "%s", g_station);
        return dealWriteReply(data, len);
    }
    if (len > 0 && len < g_need) {
        g_counters[CNT_NEED_MORE]++;
        return LUMBRA_RESULT_NEED_MORE;
    }
    result = g_results[g_next++ % g_resultCount];
    g_counters[CNT_DEALT]++;
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
    if (reg && data && strcmp(reg, "BUF") == 0) {
        int n = g_counters[CNT_LAST_LEN] < len ? g_counters[CNT_LAST_LEN] : len;
        memcpy(data, g_lastBuf, n > 0 ? (size_t)n : 0);
        return 1;
    }
    if (!reg || !data || len < 4)
        return -1;
    if (strcmp(reg, "G") == 0)
        value = g_global;
    else if (strcmp(reg, "CNT") == 0 && addr >= 0 && addr < CNT_MAX)
        value = g_counters[addr];
    else if (strcmp(reg, "LINK") == 0)
        value = g_linkId;
    else if (strcmp(reg, "Q") == 0)
        return 0; /* never read, as an old driver says it */
    else
        return -1;
    memcpy(data, &value, 4);
    return 1;
}

#ifndef SCRIPTED_ABI1
static int g_lastTicket;

int intf_getValue(int station, const char *reg, int addr, int count, int kind, unsigned char *data, int len,
                  int *quality)
{
    if (reg && strcmp(reg, "Q") == 0 && data && len >= 4) {
        g_counters[CNT_LAST_KIND] = kind;
        *quality = g_quality;
        if (g_quality == LUMBRA_QUALITY_NOT_READ) {
            memset(data, 0, (size_t)len);
            return 0;
        }
        memcpy(data, &g_global, 4);
        return 1;
    }
    *quality = LUMBRA_QUALITY_GOOD;
    return intf_getData(station, reg, addr, count, data, len);
}

int intf_setValue(int station, const char *reg, int addr, int count, int kind, const unsigned char *data, int len,
                  int *ticket)
{
    (void)station, (void)addr, (void)count, (void)kind;
    if (reg && strcmp(reg, "G") == 0 && data && len >= 4) { /* kept at once: confirmed at once */
        memcpy(&g_global, data, 4);
        *ticket = ++g_lastTicket;
        settle(*ticket, LUMBRA_WRITE_DONE, "");
        return 1;
    }
    if (!reg || (strcmp(reg, "W") != 0 && strcmp(reg, "B") != 0) || g_queued)
        return -1;
    g_queued = ++g_lastTicket;
    g_queuedBroadcast = strcmp(reg, "B") == 0;
    settle(g_queued, LUMBRA_WRITE_PENDING, "");
    *ticket = g_queued;
    return 1;
}

int intf_writeState(int ticket, char *text, int text_size)
{
    if (ticket <= 0 || ticket > g_lastTicket) {
        snprintf(text, (size_t)text_size, "unknown");
        return LUMBRA_WRITE_FAILED;
    }
    snprintf(text, (size_t)text_size, "%s", g_ticketText[ticket % MAX_TICKETS]);
    return g_ticketState[ticket % MAX_TICKETS];
}

void intf_cancelWrite(int ticket)
{
    g_counters[CNT_CANCELLED]++;
    if (g_queued == ticket)
        g_queued = 0;
    if (ticket > 0 && g_ticketState[ticket % MAX_TICKETS] == LUMBRA_WRITE_PENDING)
        settle(ticket, LUMBRA_WRITE_FAILED, "cancelled");
}

void intf_setLogCallBack(lumbra_log_cb cb)
{
    g_log = cb;
}
#endif

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
    int i, stations = 0;
    for (i = 0; i < count; ++i)
        if (list[i].station >= 0 && list[i].station < 31)
            stations |= 1 << list[i].station;
    g_counters[CNT_MERGED] = count;
    g_counters[CNT_MERGED_STATIONS] = stations;
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
