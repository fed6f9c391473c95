// The device addresses that services want polled, by registration type.
#pragma once

#include "lumbra/driver.h"

#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>

// Registration types of the services that register addresses.
enum ExternalAddrType {
    EXTERNAL_ADDR_REALDATA = 0,
    EXTERNAL_ADDR_HISTORY = 1,
    EXTERNAL_ADDR_ALARM = 2,
    EXTERNAL_ADDR_MACRO = 3,
    EXTERNAL_ADDR_FORWARD = 4,
};

// One registered address. KEY_ADDRESS has room for 63 bytes of link name,
// so the full name travels beside it: the table matches on that one.
struct ExternalAddr {
    QString link;
    KEY_ADDRESS key;
};

class ExternalAddrTable {
public:
    // Replaces everything registered under type before.
    void set(int type, const QList<ExternalAddr> &list);
    // Every address of every type on this link, each (register, address,
    // station, length) once.
    QList<KEY_ADDRESS> forLink(const QString &link) const;

    static KEY_ADDRESS makeKey(const QString &link, const QString &reg, const QString &addr, int station,
                               int len, int type, int index = -1);
    static ExternalAddr makeAddr(const QString &link, const QString &reg, const QString &addr, int station,
                                 int len, int type, int index = -1);

private:
    mutable QMutex m_mutex;
    QMap<int, QList<ExternalAddr>> m_byType;
};
