// The link manager: reads the link configuration, runs one thread per link,
// holds the box's local registers, and is the one door through which every
// service reads and writes device values.
#pragma once

#include "externaladdrtable.h"
#include "linkvalue.h"
#include "localregisters.h"
#include "src/repeatlimiter.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QReadWriteLock>
#include <QStringList>
#include <QVariant>

#include <memory>
#include <vector>

class ULinkThread;

class communication {
public:
    static communication *getInstance();

    void readLinkConfig();
    void initLinks();

    static int getLocalIndex(const QString &reg) { return LocalRegisters::indexOf(reg); }
    int getLocalValue(int index, int addr, int len, uchar *data);
    int setLocalValue(int index, int addr, int len, const uchar *data);

    // addr is a local cell address or a driver index (getIndexFromAddr); len
    // counts cells or words. A negative station means the link's own
    // "plc_id". dataSize, when given, is the room in data in bytes; without
    // it data must hold 2 * len bytes. kind (LUMBRA_KIND_*, kindOf) tells the
    // driver which byte order applies.
    //
    // getCommValue: 1 when data holds a value the device sent on its last
    // read; 0 when it has none (data then hold the last good value or zeros,
    // and *quality, a LUMBRA_QUALITY_*, says why); -1 when the address is
    // unusable. Local registers are always good. A shielded station (in
    // "station_no_comm", or shielded by spendStation) is not polled, so its
    // values read as NO_REPLY with 0, like those of a station that is down.
    // With waitMs, a device value not read yet (an address just registered)
    // is asked of the device at once where the driver reads on request, and
    // waited for, at most waitMs and at most the link's reply time-out.
    int getCommValue(const QString &link, const QString &reg, int addr, int station, int len, uchar *data,
                     int dataSize = -1, int kind = LUMBRA_KIND_RAW, int *quality = nullptr, int waitMs = 0);
    // Many values of one link, each as getCommValue reads it, with one
    // look-up of the link and one hold of its driver for them all: a
    // service that reads thousands of values a second pays per value only
    // for the value. rc gets what getCommValue would have returned.
    struct ValueRead {
        const QString *reg = nullptr;
        int addr = 0;
        int station = 0;
        int len = 0;
        int kind = LUMBRA_KIND_RAW;
        uchar *data = nullptr;
        int dataSize = 0;
        int rc = -1;
    };
    void getCommValues(const QString &link, ValueRead *reads, int count);
    // setCommValue waits until the device confirms the write, at most the
    // link's reply time-out: 1 when confirmed (local registers: 1 written, 0
    // unchanged), -1 when refused, unanswered or impossible; *why then says
    // which, and a WARN line names the address.
    int setCommValue(const QString &link, const QString &reg, int addr, int station, int len, const uchar *data,
                     int dataSize = -1, int kind = LUMBRA_KIND_RAW, QString *why = nullptr);
    // The LUMBRA_KIND_* of a configured value type (VALUE_* of generalFunc).
    static int kindOf(int valueType);

    int getIndexFromName(const QString &name) const;
    int getIndexFromID(int id) const;
    LinkValue getLinkByName(const QString &name) const;
    LinkValue getLinkById(int id) const;
    QList<LinkValue> linkValues() const;
    // mode 0 asks for a bit (".0" is tried first), 1 for a word.
    int getIndexFromAddr(const QString &link, const QString &reg, const QString &addr, int station, int mode);

    int startLinkFromName(const QString &name) { return suspendLink(name, false); }
    int spendLinkFromName(const QString &name) { return suspendLink(name, true); }
    // Shield or unshield one station of a link: writes to it are dropped and
    // its addresses are not polled.
    int spendStation(const QString &link, int station);
    int startStation(const QString &link, int station);
    QList<int> staShieldList() const;

    int resetLinkFromID(int id);
    int statusLinkFromID(int id);
    int lLinkSendFromID(const QByteArray &data, int len, int id);
    int lLinkReadFromID(QByteArray &data, unsigned maxLen, int id, int timeoutMs = 0);
    // arg: a list [function id, integer argument]; the integer comes back changed
    // when the driver changes it.
    int exeuteFuncFromID(int id, QVariant &arg);
    int create_freePort(const LinkValue *link);
    // Stops and deletes the free-protocol link with this id, its port with
    // it: 1 done, -1 when there is no such free link.
    int close_freePort(int id);

    void setExternalAddrInfo(const QList<ExternalAddr> &list, int type);
    // The same without a copy, for services with thousands of addresses.
    void setExternalAddrs(QVector<ExternalAddr> list, int type);
    // For callers that only have KEY_ADDRESS: a link name cut to its 63
    // bytes is taken for the one link whose name starts with them.
    void setExternalAddrInfo(const QList<KEY_ADDRESS> &list, int type);
    void enableExternalAddrInfo(bool enable);
    // The links that have not finished a first poll cycle: polling is not
    // switched on yet, or the driver has no answer, good or bad, for some
    // address registered with the link. Links that poll nothing (no driver,
    // suspended, slaves and servers, free-protocol) never hold anyone up.
    QStringList linksWithoutFirstPoll() const;

    static void _linkValueChangedCB(int linkId, int station, QString reg, int index);
    using ValueChangedCB = void (*)(int, int, QString, int);
    // The callback links are started with: none while DEBUG lines are off.
    static ValueChangedCB valueChangedCallback();
    static void _linkErrorCallBack(int linkId, int code, QString text);

    // Stops and deletes every link thread; for an orderly end and for tests.
    void stopLinks();

private:
    // Shared, so that a thread found by one caller outlives its removal by another.
    using LinkThreadPtr = std::shared_ptr<ULinkThread>;

    communication() = default;
    static int shieldKey(int linkId, int station) { return station + linkId * 256; }
    int suspendLink(const QString &name, bool suspend);
    LinkThreadPtr threadByName(const QString &name) const;
    LinkThreadPtr threadById(int id) const;
    // The station a call means (a negative one: the link's "plc_id"), and
    // whether it is shielded.
    int stationFor(const ULinkThread &thread, int station, bool *shielded) const;
    // The named link with its station, under one look at the lists: this
    // runs for every value read.
    LinkThreadPtr valueTarget(const QString &link, int *station, bool *shielded) const;
    int shieldStation(const QString &link, int station, bool shield);
    void mergeLink(const LinkThreadPtr &thread);
    // The driver index of a registered address, resolved now when it was not.
    static int registeredIndex(ULinkThread &thread, const KEY_ADDRESS &k);
    bool firstPollDone(ULinkThread &thread) const;
    void mergeAllIfEnabled();
    void mergeIfEnabled(const LinkThreadPtr &thread);
    void addShieldedStations(const LinkValue &link);
    QString fullLinkName(const char *name) const;
    void warnWriteFailed(const QString &link, const QString &reg, int addr, int station, const QString &why);
    void writeSucceeded(const QString &link, const QString &reg, int addr, int station);

    mutable QReadWriteLock m_lock;  // guards the lists below
    QList<LinkValue> m_links;
    QList<LinkThreadPtr> m_threads;
    QList<int> m_shielded;
    LocalRegisters m_local;
    ExternalAddrTable m_external;
    bool m_externalEnabled = false;
    QMutex m_warnLock;  // guards m_writeWarnings
    QHash<QString, RepeatLimiter> m_writeWarnings;
};
