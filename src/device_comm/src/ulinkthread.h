// One worker thread per configured link: owns the link's port and driver and
// runs the exchange (master, slave, IEC 104, MPI), reporting link and station
// state into the local bit registers.
#pragma once

#include "clinkdriver.h"
#include "device_comm/linkvalue.h"
#include "iec104splitter.h"
#include "lumbra/driver.h"

#include <QByteArray>
#include <QHash>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

class ULinkPort;

class ULinkThread : public QThread {
    Q_OBJECT
public:
    using ValueChangedCB = CLinkDriver::ValueChangedCB;
    using ErrorCB = void (*)(int, int, QString);

    // Codes the link thread reports through the error callback.
    enum LinkEvent { LinkRecovered = 0, LinkFailed = 1, StationFailed = 2, StationRecovered = 3 };

    explicit ULinkThread(int linkId, QObject *parent = nullptr);
    ~ULinkThread() override;

    // 0: port open; -1: the port did not open (the thread retries every 10 s);
    // -2: called twice. The thread is started either way, except for free ports.
    int InitLink(const LinkValue &link, ValueChangedCB valueChangedCB, ErrorCB errorCB,
                 uchar *extra = nullptr, unsigned extraLen = 0);
    bool initLib(int linkId, const char *driver, ValueChangedCB valueChangedCB);
    int InitPort();

    static int getLinkCOMMType(const LinkValue &link);
    static QString getLinkCOMMConfig(const LinkValue &link);
    static int gettyOIDFromComID(int comId);
    // The COM number of a serial link ("COM3" -> 3), or 0 when the link type
    // names none ("COM", "COMx", "COM0").
    static int comNumber(const LinkValue &link);
    // "NONE", "EVEN" or "ODD" for a link's "check_bit", any case; anything
    // else, an empty text included, means no parity.
    static QString parityName(const QString &checkBit);
    // The SocketCAN interface of a CAN link: its type in lower case ("CAN1"
    // -> "can1"), "can0" for a bare "CAN".
    static QString canInterface(const LinkValue &link);

    // A value as a LUMBRA_KIND_* with its LUMBRA_QUALITY_* (CLinkDriver).
    int GetValue(int station, const QString &reg, int addr, int count, int kind, uchar *data, int len, int *quality);
    void GetValues(CLinkDriver::ValueRead *reads, int n);
    // Hands a write to the driver and waits for the device's answer, at most
    // waitMs, without touching the port: the link thread may sit in a reply
    // time-out or a reconnect meanwhile. 1 when confirmed; -1 when refused,
    // unanswered or not sent in time (it is then cancelled), *why says which.
    int WriteValue(int station, const QString &reg, int addr, int count, int kind, const uchar *data, int len,
                   int waitMs, QString *why);
    // GetValue, but a value the driver has not read yet (a newly polled
    // address) is asked for at once from a driver that reads on request
    // (intf_addConditionRead) and waited for, exchange by exchange, at most
    // waitMs.
    int AwaitValue(int station, const QString &reg, int addr, int count, int kind, uchar *data, int len,
                   int *quality, int waitMs);
    // The reply time-out: "timeout1", 1000 ms when unset.
    int replyTimeout() const { return m_replyTimeout; }
    int AddressMerge(std::vector<KEY_ADDRESS> &list);
    int setFunc(int id, void *arg) { return m_driver ? m_driver->SetFunc(id, arg) : -1; }
    int getAddrIndexFromStr(const QString &reg, const QString &addr, int station, int mode);

    int lLinkSend(const QByteArray &data, int len);
    int lLinkRead(QByteArray &data, unsigned maxLen, int timeoutMs = 0);
    int lLinkReset();
    int lLinkStatus();

    void setSupend(bool suspend);
    bool isSuspended() const { return m_suspended; }
    void setSpeAddrComError(bool ok);
    void setSpeAddrStationError(const QString &station, bool ok);

    QString getLinkName() const { return m_linkName; }
    // The same without a copy, for the look-ups of every value read.
    const QString &linkName() const { return m_linkName; }
    int defaultStation() const { return m_link.plc_id; }
    int getLinkID() const { return m_linkId; }
    LinkValue getLinkPro() const { return m_link; }
    bool hasDriver() const { return m_driver != nullptr; }

    // Ends the loop after the current turn; wait() then returns.
    void stop();

    // Where the status bits of a link live in "LB".
    static int comErrorBit(int portNumber);
    static int stationErrorBit(int portNumber, int station);

protected:
    void run() override;

private:
    // True when the turn exchanged something with the device.
    bool runTurn();
    int idlePause() const;
    bool servesClients() const;
    void serveEvents();
    static void clientRequestCB(void *context, const QByteArray &request, QByteArray *reply);
    void serveClientRequest(const QByteArray &request, QByteArray *reply);
    bool deal_Protocol();
    void dealSlave();
    void dealIec104Client();
    void deal_104_msg();
    void dealRecvFrameResult(int result, const QString &text);
    void actOnMasterResult(int result);
    bool awaitReply(int *result, QString *text);
    void replyFailed();
    void exchangeLost();
    void dealApdus(bool client);
    int dealFrame(const QByteArray &frame, QString &text);
    void exchangeDone();
    int awaitWrite(int ticket, int waitMs, QString *text);
    void requestRead(int station, const QString &reg, int addr, int count);
    void awaitExchanges(int waitMs, const std::function<bool()> &settled);
    int initMPI();
    void dealMPI();
    int sendFrame();
    // 0 when the driver has no frame to send, LUMBRA_FRAME_NO_REPLY for one
    // that gets no answer, 1 for a request.
    int fetchSendFrame();
    void writeStatusBit(int address, int value);
    void fillLinkInfo(LUMBRA_LINK_INFO &info) const;
    void checkSerialLink();
    int portNumber() const;
    void pause(int ms);

    const int m_linkId;
    LinkValue m_link;
    QString m_linkName;
    QString m_driverName;
    std::unique_ptr<CLinkDriver> m_driver;
    ULinkPort *m_port = nullptr;
    QByteArray m_recvBuf;
    QString m_station;
    FRAME_PRO m_sendFrame;
    int m_commType = -1;
    QString m_commConfig;
    int m_ttyNumber = -1;
    int m_replyTimeout = 1000;
    uint16_t m_cycleDelay = 0;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_stopRequested{false};  // survives a stop() that comes before run()
    bool m_mpi = false;
    std::atomic<bool> m_suspended{false};
    bool m_initialised = false;
    QMutex m_portMutex;
    QHash<int, int> m_statusShadow;  // LB address -> last value written
    ErrorCB m_errorCB = nullptr;
    int m_silenceMs = 0;
    qint64 m_last104Rx = 0;
    Iec104Splitter m_apdus;
    int m_104Client = -1;
    // Writers and readers wait here for the exchanges that may answer them.
    QMutex m_exchangeMutex;
    QWaitCondition m_exchanged;
    std::atomic<int> m_exchangeWaiters{0};
};
