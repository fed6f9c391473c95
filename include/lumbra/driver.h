/*
 * Lumbra driver plug-in ABI.
 *
 * A protocol driver is a shared object that exports some of the entry points
 * below with C linkage. The gateway loads one private copy of the file per
 * link, so a driver may keep its state in globals. Every entry point that
 * touches frames or values is called with the driver's lock held: a driver is
 * never entered twice at once through them.
 *
 * A missing entry point is not an error; the gateway then skips what needs it.
 * The ABI grows by adding entry points, never by changing one.
 *
 * This is the only header a driver may include. Plain C, no Qt.
 */
#ifndef LUMBRA_DRIVER_H
#define LUMBRA_DRIVER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Version 2 added the results NEED_MORE and the no-reply frame, value kinds
 * and qualities, written-value tickets and the log callback. A driver uses
 * what a version added only when the gateway's LUMBRA_LINK_INFO.abi_version
 * is at least that version; a gateway uses an entry point only when the
 * driver exports it. */
#define LUMBRA_DRIVER_ABI_VERSION 2

/* A frame handed between a driver and its link thread. It is sent only when
 * 1 <= len < LUMBRA_FRAME_SIZE. */
#define LUMBRA_FRAME_SIZE 1024
typedef struct FRAME_PRO {
    unsigned char data[LUMBRA_FRAME_SIZE];
    int32_t len;
} FRAME_PRO;

/* One device address that a service of the gateway wants polled. */
#define LUMBRA_REG_NAME_SIZE 16
#define LUMBRA_ADDR_TEXT_SIZE 32
#define LUMBRA_LINK_NAME_SIZE 64
typedef struct KEY_ADDRESS {
    char reg[LUMBRA_REG_NAME_SIZE];    /* register (block) name, e.g. "4X" */
    char addr[LUMBRA_ADDR_TEXT_SIZE];  /* address text, e.g. "100" or "100.3" */
    int32_t station;                   /* station (unit id) */
    int32_t index;                     /* from intf_checkAddrValidity; -1 unresolved */
    int32_t len;                       /* length in words; 1 for a bit */
    int32_t type;                      /* the registering service's registration type */
    char link[LUMBRA_LINK_NAME_SIZE];  /* link name; the gateway's own bookkeeping */
} KEY_ADDRESS;

/* What intf_initProperty receives in its first buffer (its int is the size of
 * this struct, so a driver can check it). Texts are zero-terminated. */
typedef struct LUMBRA_LINK_INFO {
    int32_t abi_version;   /* the gateway's LUMBRA_DRIVER_ABI_VERSION */
    int32_t link_id;
    int32_t comm_type;     /* 0/1 serial, 2/3 UDP, 4/5/7 TCP, 6 CAN */
    int32_t master_or_slave;
    int32_t hmi_position;
    int32_t screen_id;
    int32_t plc_id;        /* default station */
    int32_t comm_time;     /* ms */
    int32_t timeout1;      /* ms */
    int32_t timeout2;      /* ms */
    int32_t retry_times;
    int32_t address_mode;
    int32_t address_step;
    int32_t data_conver;
    int32_t baudrate;
    char link_name[64];
    char link_device[64];
    char remote_property[256];
    char station_data_conver[256];
} LUMBRA_LINK_INFO;

/* Results of intf_dealRcvFrame. */
#define LUMBRA_RESULT_GOOD 1             /* station and link communicate */
#define LUMBRA_RESULT_STATION_FAILED 2   /* station failed; driver told to disconnect */
#define LUMBRA_RESULT_INCOMPLETE 3       /* receive buffer cleared, polling goes on */
#define LUMBRA_RESULT_SLAVE_REPLY 6      /* slave: a reply waits in intf_getSendFrame */
#define LUMBRA_RESULT_EXCHANGE_FAILED 9  /* port reset, 1000 ms pause */
#define LUMBRA_RESULT_NEW_PORT_SETUP 100 /* text holds new port set-up text */
/* ABI 2. The reply is not complete yet (a TCP reply cut into segments, a
 * serial reply still arriving, noise before it). The link thread keeps what
 * it received, receives more until the reply time-out has passed since the
 * request went out, and hands the whole buffer, from its first byte, again.
 * When the time-out passes first it hands an empty buffer: no reply. */
#define LUMBRA_RESULT_NEED_MORE 4

/* ABI 2. What intf_getSendFrame returns for a frame that gets no reply (a
 * broadcast): the link thread sends it and does not wait for an answer. Any
 * other non-zero result means a request whose reply intf_dealRcvFrame gets. */
#define LUMBRA_FRAME_NO_REPLY 2

/* ABI 2. What a value is, so that the driver applies the byte order the
 * link or station asks for (intf_getValue, intf_setValue). */
#define LUMBRA_KIND_RAW 0    /* unknown: laid out as intf_getData does */
#define LUMBRA_KIND_BIT 1    /* count bits, one byte 0/1 each */
#define LUMBRA_KIND_16BIT 2  /* 16-bit integers and BCD, count N: N native uint16 */
#define LUMBRA_KIND_32BIT 3  /* 32-bit integers, BCD and floats, count 2N: N native 32-bit values */
#define LUMBRA_KIND_STRING 4 /* text of count words: 2 * count characters in reading order */

/* ABI 2. How good a value is (intf_getValue). Only GOOD values may be
 * reported as the device's: the others keep the last good value (if any)
 * for the gateway, which never passes it on as current. */
#define LUMBRA_QUALITY_GOOD 0     /* the device sent it on the last read */
#define LUMBRA_QUALITY_NOT_READ 1 /* not read yet */
#define LUMBRA_QUALITY_NO_REPLY 2 /* the last read got no valid reply, or the station is down */
#define LUMBRA_QUALITY_REFUSED 3  /* the device answered the last read with an exception */

/* ABI 2. States of a written value (intf_writeState). */
#define LUMBRA_WRITE_PENDING 0 /* queued or in flight */
#define LUMBRA_WRITE_DONE 1    /* the device confirmed it (a broadcast: it went out) */
#define LUMBRA_WRITE_FAILED -1 /* refused, unanswered, cancelled or unknown: text says which */

/* ABI 2. Levels of the log callback. */
#define LUMBRA_LOG_DEBUG 0
#define LUMBRA_LOG_INFO 1
#define LUMBRA_LOG_WARN 2
#define LUMBRA_LOG_ERROR 3

/* Result of intf_checkAddrValidity for a valid address (index is set). */
#define LUMBRA_ADDR_OK 0
/* Result of intf_checkAddrValidity when the ".0" bit form that the gateway
 * tried is not this register's form; the gateway retries the text as given. */
#define LUMBRA_ADDR_RETRY_PLAIN 4

/* intf_setFunc ids the gateway calls right after loading a driver. */
#define LUMBRA_FUNC_LINK_ID 1   /* arg: const int32_t*, the link id */
#define LUMBRA_FUNC_COMM_TYPE 2 /* arg: const int32_t*, the communication type */

/* Called by the driver when a polled value changes:
 * (link id, station, register name, index). */
typedef void (*lumbra_value_changed_cb)(int link_id, int station, const char *reg, int index);
/* ABI 2. Called by the driver to log one line (no newline), always from
 * inside one of its entry points. The driver limits repeats itself: a fault
 * that recurs every poll is logged once, then at most once a minute. */
typedef void (*lumbra_log_cb)(int link_id, int level, const char *text);

/* Entry points. Return -1 for "cannot", as the gateway does. */
typedef int (*intf_getSendFrame_t)(FRAME_PRO *frame); /* non-zero when a frame was produced */
typedef int (*intf_dealRcvFrame_t)(const unsigned char *data, int len, char *text, int text_size);
typedef int (*intf_getData_t)(int station, const char *reg, int addr, int count, unsigned char *data, int len);
typedef int (*intf_setData_t)(int station, const char *reg, int addr, int count, const unsigned char *data,
                              int len);
typedef int (*intf_initProperty_t)(unsigned char *info, unsigned char *reserved1, unsigned char *reserved2,
                                   int *info_size, char *text, void *driver_mutex);
typedef int (*intf_mpiInit_t)(char *text, int a, int b, int c, int d, int e, int f);
typedef int (*intf_mpiDeal_t)(void);
typedef void (*intf_setAddrValueChangeCallBack_t)(lumbra_value_changed_cb cb);
typedef int (*intf_SetDriverPropertyPage_t)(const char *property);
/* Read these addresses once, as soon as possible: after the writes already
 * queued, ahead of the polls (an exchange under way, with its retries, ends
 * first). Each entry names an address as for intf_addrMerge, by its index
 * when that is >= 0 (as intf_checkAddrValidity gave it), else by reg and
 * addr; len and station as there. The result comes by the normal value path:
 * intf_getValue gives value and quality as after a poll (GOOD with the value
 * the device sent; on an exception, no reply or a dead station REFUSED or
 * NO_REPLY, never a made-up value), and the value-changed callback reports
 * polled addresses whose value changed. The addresses do not join the poll
 * set. Returns how many entries are queued (one already waiting counts):
 * fewer than count when some name nothing or the driver's queue is full;
 * -1 for a null list with a positive count. */
typedef int (*intf_addConditionRead_t)(const KEY_ADDRESS *list, int count);
typedef int (*intf_addrMerge_t)(KEY_ADDRESS *list, int count);
typedef int (*intf_addrMergeOfOrder_t)(KEY_ADDRESS *list, int count);
typedef int (*intf_checkAddrValidity_t)(const char *reg, const char *addr, int *index, int station, int mode);
typedef int (*intf_setRcpAddress_t)(const char *reg, int addr);
typedef void (*inft_setDisconnect_t)(void);
typedef int (*intf_setS7_Smart_Run_t)(int run);
typedef int (*intf_setStation_t)(int station);
typedef int (*intf_setFunc_t)(int id, void *arg);
/* ABI 2. intf_getData for a value of a LUMBRA_KIND_*; *quality gets a
 * LUMBRA_QUALITY_*. Returns 1 when data holds a value the device sent (the
 * current one or, when the quality is not GOOD, the last good one), 0 when
 * there is none (data zeroed, quality not GOOD), -1 for invalid arguments. */
typedef int (*intf_getValue_t)(int station, const char *reg, int addr, int count, int kind, unsigned char *data,
                               int len, int *quality);
/* ABI 2. intf_setData for a value of a LUMBRA_KIND_*; on 1 (queued) *ticket
 * gets a positive number that intf_writeState and intf_cancelWrite take. */
typedef int (*intf_setValue_t)(int station, const char *reg, int addr, int count, int kind,
                               const unsigned char *data, int len, int *ticket);
/* ABI 2. A LUMBRA_WRITE_*; for FAILED, text says why ("exception 2 (illegal
 * data address)", "no reply", "cancelled"). */
typedef int (*intf_writeState_t)(int ticket, char *text, int text_size);
/* ABI 2. The gateway stopped waiting for the write: if it has not gone out
 * it never will; if it is in flight it is not retried. */
typedef void (*intf_cancelWrite_t)(int ticket);
/* ABI 2. Called once after loading, like intf_setAddrValueChangeCallBack. */
typedef void (*intf_setLogCallBack_t)(lumbra_log_cb cb);
/* The LUMBRA_DRIVER_ABI_VERSION the driver was built for. A driver that
 * says 2 or more gets replies on a serial line piece by piece as they
 * arrive, and answers NEED_MORE until one is whole; a driver without it gets
 * a serial reply only once the line has fallen silent after it. */
typedef int (*intf_abiVersion_t)(void);

#ifdef LUMBRA_DRIVER_DECLARE_ENTRY_POINTS
int intf_getSendFrame(FRAME_PRO *frame);
int intf_dealRcvFrame(const unsigned char *data, int len, char *text, int text_size);
int intf_getData(int station, const char *reg, int addr, int count, unsigned char *data, int len);
int intf_setData(int station, const char *reg, int addr, int count, const unsigned char *data, int len);
int intf_initProperty(unsigned char *info, unsigned char *reserved1, unsigned char *reserved2, int *info_size,
                      char *text, void *driver_mutex);
int intf_mpiInit(char *text, int a, int b, int c, int d, int e, int f);
int intf_mpiDeal(void);
void intf_setAddrValueChangeCallBack(lumbra_value_changed_cb cb);
int intf_SetDriverPropertyPage(const char *property);
int intf_addConditionRead(const KEY_ADDRESS *list, int count);
int intf_addrMerge(KEY_ADDRESS *list, int count);
int intf_addrMergeOfOrder(KEY_ADDRESS *list, int count);
int intf_checkAddrValidity(const char *reg, const char *addr, int *index, int station, int mode);
int intf_setRcpAddress(const char *reg, int addr);
void inft_setDisconnect(void);
int intf_setS7_Smart_Run(int run);
int intf_setStation(int station);
int intf_setFunc(int id, void *arg);
int intf_getValue(int station, const char *reg, int addr, int count, int kind, unsigned char *data, int len,
                  int *quality);
int intf_setValue(int station, const char *reg, int addr, int count, int kind, const unsigned char *data, int len,
                  int *ticket);
int intf_writeState(int ticket, char *text, int text_size);
void intf_cancelWrite(int ticket);
void intf_setLogCallBack(lumbra_log_cb cb);
int intf_abiVersion(void);
#endif

#ifdef __cplusplus
}
#endif

#endif /* LUMBRA_DRIVER_H */
