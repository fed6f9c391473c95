// What scripts reach the gateway through: device values by link name or link
// index, link and station suspend/start, raw bytes on free-protocol links, and
// a bank of second timers.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include <mutex>

class HmiToMacroInterface : public QObject {
    Q_OBJECT
public:
    // Timers 0..31 are addressable; the bank holds a few more entries that
    // nothing can reach.
    static constexpr int kTimerSlots = 36;
    static constexpr int kMaxTimer = 31;

    HmiToMacroInterface();
    ~HmiToMacroInterface() override;

    // Value access. index is the link-local index from getIndexFromAddr (or
    // the cell number of a local register); len counts link units (cells or
    // 16-bit words); size is the room in data in bytes; kind is a
    // LUMBRA_KIND_*. The link manager's status comes back: reads 1 only for a
    // value the device sent on its last read (else *quality says why), writes
    // 1 only once the device confirmed them (else *why says why). A read
    // with waitMs waits that long at most for a value not read yet.
    int getIndexFromAddr(const QString &link, const QString &reg, const QString &addr, int station, int mode);
    int getIndexFromAddr(int linkId, const QString &reg, const QString &addr, int station, int mode);
    int setCommValueNumber(const QString &link, const QString &reg, int index, int station, int len,
                           const uchar *data, int size, int kind = 0, QString *why = nullptr);
    int setCommValueNumber(int linkId, const QString &reg, int index, int station, int len, const uchar *data,
                           int size, int kind = 0, QString *why = nullptr);
    int getCommValueNumber(const QString &link, const QString &reg, int index, int station, int len, uchar *data,
                           int size, int kind = 0, int *quality = nullptr, int waitMs = 0);
    int getCommValueNumber(int linkId, const QString &reg, int index, int station, int len, uchar *data, int size,
                           int kind = 0, int *quality = nullptr, int waitMs = 0);
    // The name of the link with this index; empty when there is none.
    static QString linkName(int linkId);

    // Links and stations. nameAndStation is "<link>,<station>".
    int suspendComm(const QString &name);
    int startCom(const QString &name);
    int suspendCommWithStation(const QString &nameAndStation);
    int startComWithStation(const QString &nameAndStation);
    QString getHmiModel() const;

    // Raw bytes on free-protocol links (configured ones and those opened by
    // initCommunication*). Results: bytes moved, or negative on failure.
    int readDeviceFromLinkid(int linkId, uchar *buf, int len, int timeoutMs);
    int writeDeviceFromLinkid(int linkId, const uchar *buf, int len, int timeoutMs);
    // params: "tcp"|"udp", ip, port. Returns the new link's id, -1 on failure.
    int initCommunicationNet(const QStringList &params);
    // params: "can", interface (can0, can1), bit rate. Returns the link id or -1.
    int initCommunicationCan(const QStringList &params);
    int sendData(int linkId, const QByteArray &data);
    int recvData(int linkId, QByteArray &data, int maxLen, int timeoutMs);
    int resetCommunication(int linkId);
    int statusCommunication(int linkId);
    // Closes a link that initCommunication* opened: 1 done, -1 when there is
    // no such free link.
    int closeCommunication(int linkId);

    // The timer bank. Indexes above 31 (and negative ones) are refused.
    int timerRun(int i);
    int timerStop(int i);
    int timerReset(int i, unsigned v);
    int timerSkip(int i, unsigned v);
    unsigned timerValue(int i);
    int timerState(int i);
    QString timerStr(int i, int format);
    int timerSetLimit(int i, unsigned limit, int stop);
    int timerSetOutput(int i, int linkId, const QString &reg, int addr, int station);
    int timerOutRun(int i, int scriptId);
    int timerWaitFor(unsigned ms);
    bool tickerActive() const { return m_ticker.isActive(); }

signals:
    void runTimer(int on);

public slots:
    // One second of the bank: runs on the thread that owns this object.
    void sysTimerForMacro();

private slots:
    void runTimerSlot(int on);

private:
    struct Due {
        QString output;
        unsigned value = 0;
    };
    static bool valid(int i) { return i >= 0 && i <= kMaxTimer; }
    bool tickOne(int i, bool elapsed, Due &due);
    void writeOutput(const QString &output, unsigned value);
    int openFreeLink(const QString &linkType, const QString &ip, int port, unsigned baud);

    // The script thread changes the bank while the tick reads it; the lock
    // is never held while a script runs.
    std::mutex m_bankLock;
    QVector<unsigned> m_value;
    QVector<bool> m_running;
    QVector<int> m_step;
    QVector<unsigned> m_limit;
    QVector<bool> m_stopAtLimit;
    QVector<QString> m_output;
    QVector<int> m_runOnLimit;
    QTimer m_ticker;
};
