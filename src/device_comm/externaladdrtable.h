// The device addresses that services want polled, by registration type.
#pragma once

#include "lumbra/driver.h"

#include <QList>
#include <QMap>
#include <QVector>
#include <QMutex>
#include <QString>

#include <vector>

// Registration types of the services that register addresses.
enum ExternalAddrType {
    EXTERNAL_ADDR_REALDATA = 0,
    EXTERNAL_ADDR_HISTORY = 1,
    EXTERNAL_ADDR_ALARM = 2,
    EXTERNAL_ADDR_MACRO = 3,
    EXTERNAL_ADDR_FORWARD = 4,
};

// One registered address. Texts rather than a KEY_ADDRESS: a service's
// strings are shared with it instead of copied into 128 bytes a point, and
// the full link name is kept (KEY_ADDRESS has room for 63 bytes of it).
struct ExternalAddr {
    QString link;
    QString reg;
    QString addr;
    int station = 0;
    int len = 1;
    int type = 0;
    int index = -1;

    KEY_ADDRESS key() const;
};

class ExternalAddrTable {
public:
    // Replaces everything registered under type before.
    void set(int type, QVector<ExternalAddr> list);
    // Every address of every type on this link, each (register, address,
    // station, length, index) once, in the order of registration.
    std::vector<KEY_ADDRESS> forLink(const QString &link) const;

    static KEY_ADDRESS makeKey(const QString &link, const QString &reg, const QString &addr, int station,
                               int len, int type, int index = -1);
    static ExternalAddr makeAddr(const QString &link, const QString &reg, const QString &addr, int station,
                                 int len, int type, int index = -1);

private:
    mutable QMutex m_mutex;
    QMap<int, QVector<ExternalAddr>> m_byType;
};
