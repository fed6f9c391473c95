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

#define LUMBRA_DRIVER_ABI_VERSION 1

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
    int32_t abi_version;   /* LUMBRA_DRIVER_ABI_VERSION */
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
typedef int (*intf_addConditionRead_t)(const KEY_ADDRESS *list, int count);
typedef int (*intf_addrMerge_t)(KEY_ADDRESS *list, int count);
typedef int (*intf_addrMergeOfOrder_t)(KEY_ADDRESS *list, int count);
typedef int (*intf_checkAddrValidity_t)(const char *reg, const char *addr, int *index, int station, int mode);
typedef int (*intf_setRcpAddress_t)(const char *reg, int addr);
typedef void (*inft_setDisconnect_t)(void);
typedef int (*intf_setS7_Smart_Run_t)(int run);
typedef int (*intf_setStation_t)(int station);
typedef int (*intf_setFunc_t)(int id, void *arg);

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
#endif

#ifdef __cplusplus
}
#endif

#endif /* LUMBRA_DRIVER_H */
