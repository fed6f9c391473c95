// One loaded protocol driver. Every call that touches frames or values holds
// the driver's mutex, so the link thread and other services never enter a
// driver at the same time.
#pragma once

#include "lumbra/driver.h"

#include <QByteArray>
#include <QLibrary>
#include <QList>
#include <QMutex>
#include <QString>

#include <vector>

class CLinkDriver {
public:
    using ValueChangedCB = void (*)(int, int, QString, int);

    CLinkDriver() = default;
    ~CLinkDriver();
    CLinkDriver(const CLinkDriver &) = delete;
    CLinkDriver &operator=(const CLinkDriver &) = delete;

    // Loads the library and resolves every entry point; a missing one is not
    // an error. Every driver reports changed values to the one callback of
    // the process (the link manager's), so the last one given is used; a
    // driver given none is not asked to report them.
    bool loadDriver(const QString &path, ValueChangedCB valueChangedCB);
    QString path() const { return m_path; }

    int InitProperty(uchar *info, uchar *reserved1, uchar *reserved2, int &infoSize, char *text,
                     QMutex *mutex);
    int SetDriverPropertyPage(const QString &property);
    int mpiInit(char *text, int a, int b, int c, int d, int e, int f);
    int mpiDeal();
    intf_getSendFrame_t GetSF() const { return m_getSendFrame; }
    intf_dealRcvFrame_t GetDF() const { return m_dealRcvFrame; }
    int SetValue(int station, const QString &reg, int addr, int count, const uchar *data, int len);
    int GetValue(int station, const QString &reg, int addr, int count, uchar *data, int len);
    // A value of a LUMBRA_KIND_*, *quality a LUMBRA_QUALITY_*; as
    // intf_getValue. A driver without it answers through intf_getData: GOOD
    // when that gave 1, NOT_READ when it gave 0.
    int GetValue(int station, const QString &reg, int addr, int count, int kind, uchar *data, int len, int *quality);
    // Many GetValue calls under one hold of the lock; rc and quality are
    // each call's result.
    struct ValueRead {
        const QString *reg;
        int addr;
        int station;
        int count;
        int kind;
        uchar *data;
        int len;
        int rc;
        int quality;
    };
    void GetValues(ValueRead *reads, int n);
    // Queues a write: 1 with *ticket > 0 to follow through WriteState, or 1
    // with *ticket 0 from a driver without tickets (intf_setData), whose
    // queued write counts as confirmed; -1 when refused.
    int SetValue(int station, const QString &reg, int addr, int count, int kind, const uchar *data, int len,
                 int *ticket);
    // A LUMBRA_WRITE_*; for FAILED, *why says why.
    int WriteState(int ticket, QString *why);
    void CancelWrite(int ticket);
    // The name that the driver's log lines of this link carry; set it before
    // InitProperty, which tells the driver its link id.
    static void setLinkName(int linkId, const QString &name);
    int SetFunc(int id, void *arg);
    void SetDisconnect();
    int DealRecvFrame(const QByteArray &frame, QString &text);
    int GetSendFrame(FRAME_PRO &frame);
    int AddressMerge(std::vector<KEY_ADDRESS> &list);
    // Asks the driver to read these addresses once, ahead of its polls
    // (intf_addConditionRead): the number it took; -1 when it cannot.
    int AddConditionRead(const KEY_ADDRESS *list, int count);
    int CheckAddressValidity(const QString &reg, const QString &addr, int &index, int station, int mode);
    // The ABI version the driver says it was built for; 1 when it does not say.
    int abiVersion() const { return m_abiVersion ? m_abiVersion() : 1; }

private:
    template <typename T>
    void resolve(T &fn, const char *name);

    QLibrary m_lib;
    QString m_path;
    QMutex m_mutex;
    intf_getSendFrame_t m_getSendFrame = nullptr;
    intf_dealRcvFrame_t m_dealRcvFrame = nullptr;
    intf_getData_t m_getData = nullptr;
    intf_setData_t m_setData = nullptr;
    intf_initProperty_t m_initProperty = nullptr;
    intf_mpiInit_t m_mpiInit = nullptr;
    intf_mpiDeal_t m_mpiDeal = nullptr;
    intf_setAddrValueChangeCallBack_t m_setAddrValueChangeCallBack = nullptr;
    intf_SetDriverPropertyPage_t m_setDriverPropertyPage = nullptr;
    intf_addConditionRead_t m_addConditionRead = nullptr;
    intf_addrMerge_t m_addrMerge = nullptr;
    intf_addrMergeOfOrder_t m_addrMergeOfOrder = nullptr;
    intf_checkAddrValidity_t m_checkAddrValidity = nullptr;
    intf_setRcpAddress_t m_setRcpAddress = nullptr;
    inft_setDisconnect_t m_setDisconnect = nullptr;
    intf_setS7_Smart_Run_t m_setS7SmartRun = nullptr;
    intf_setStation_t m_setStation = nullptr;
    intf_setFunc_t m_setFunc = nullptr;
    intf_getValue_t m_getValue = nullptr;
    intf_setValue_t m_setValue = nullptr;
    intf_writeState_t m_writeState = nullptr;
    intf_cancelWrite_t m_cancelWrite = nullptr;
    intf_setLogCallBack_t m_setLogCallBack = nullptr;
    intf_abiVersion_t m_abiVersion = nullptr;
};
