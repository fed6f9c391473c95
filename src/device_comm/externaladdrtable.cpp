#include "externaladdrtable.h"

#include "ctext.h"

#include <QSet>

#include <cstring>

KEY_ADDRESS ExternalAddrTable::makeKey(const QString &link, const QString &reg, const QString &addr, int station,
                                       int len, int type, int index)
{
    KEY_ADDRESS k;
    std::memset(&k, 0, sizeof k);
    lumbra::copyCText(k.link, sizeof k.link, link);
    lumbra::copyCText(k.reg, sizeof k.reg, reg);
    lumbra::copyCText(k.addr, sizeof k.addr, addr);
    k.station = station;
    k.len = len;
    k.type = type;
    k.index = index;
    return k;
}

ExternalAddr ExternalAddrTable::makeAddr(const QString &link, const QString &reg, const QString &addr, int station,
                                         int len, int type, int index)
{
    return ExternalAddr{link, makeKey(link, reg, addr, station, len, type, index)};
}

void ExternalAddrTable::set(int type, const QList<ExternalAddr> &list)
{
    QMutexLocker lock(&m_mutex);
    m_byType[type] = list;
}

QList<KEY_ADDRESS> ExternalAddrTable::forLink(const QString &link) const
{
    QList<KEY_ADDRESS> out;
    QSet<QByteArray> seen;  // tens of thousands of points: no pairwise compare
    QMutexLocker lock(&m_mutex);
    for (const QList<ExternalAddr> &list : m_byType) {
        for (const ExternalAddr &a : list) {
            if (a.link != link)
                continue;
            const KEY_ADDRESS &k = a.key;
            QByteArray id = QByteArray(k.reg) + '\0' + k.addr + '\0' + QByteArray::number(k.station) + '/' +
                            QByteArray::number(k.len) + '/' + QByteArray::number(k.index);
            if (!seen.contains(id)) {
                seen.insert(id);
                out.append(k);
            }
        }
    }
    return out;
}
