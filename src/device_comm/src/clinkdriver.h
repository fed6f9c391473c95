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

class CLinkDriver {
public:
    using ValueChangedCB = void (*)(int, int, QString, int);

    CLinkDriver() = default;
    ~CLinkDriver();
    CLinkDriver(const CLinkDriver &) = delete;
    CLinkDriver &operator=(const CLinkDriver &) = delete;

    // Loads the library and resolves every entry point; a missing one is not
    // an error. Every driver reports changed values to the one callback of
    // the process (the link manager's), so the last one given is used.
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
    int SetFunc(int id, void *arg);
    void SetDisconnect();
    int DealRecvFrame(const QByteArray &frame, QString &text);
    int GetSendFrame(FRAME_PRO &frame);
    int AddressMerge(QList<KEY_ADDRESS> &list);
    int CheckAddressValidity(const QString &reg, const QString &addr, int &index, int station, int mode);

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
};
