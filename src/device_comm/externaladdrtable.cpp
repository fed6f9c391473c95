#include "externaladdrtable.h"

#include <cstring>

namespace {

void copyText(char *dst, size_t size, const QString &src)
{
    QByteArray b = src.toUtf8();
    std::strncpy(dst, b.constData(), size - 1);
    dst[size - 1] = '\0';
}

}  // namespace

KEY_ADDRESS ExternalAddrTable::makeKey(const QString &link, const QString &reg, const QString &addr, int station,
                                       int len, int type, int index)
{
    KEY_ADDRESS k;
    std::memset(&k, 0, sizeof k);
    copyText(k.link, sizeof k.link, link);
    copyText(k.reg, sizeof k.reg, reg);
    copyText(k.addr, sizeof k.addr, addr);
    k.station = station;
    k.len = len;
    k.type = type;
    k.index = index;
    return k;
}

bool ExternalAddrTable::sameAddress(const KEY_ADDRESS &a, const KEY_ADDRESS &b)
{
    return a.station == b.station && a.len == b.len && a.index == b.index && std::strcmp(a.link, b.link) == 0 &&
           std::strcmp(a.reg, b.reg) == 0 && std::strcmp(a.addr, b.addr) == 0;
}

void ExternalAddrTable::set(int type, const QList<KEY_ADDRESS> &list)
{
    QMutexLocker lock(&m_mutex);
    m_byType[type] = list;
}

QList<KEY_ADDRESS> ExternalAddrTable::forLink(const QString &link) const
{
    QByteArray name = link.toUtf8();
    QList<KEY_ADDRESS> out;
    QMutexLocker lock(&m_mutex);
    for (const QList<KEY_ADDRESS> &list : m_byType) {
        for (const KEY_ADDRESS &k : list) {
            if (name != k.link)
                continue;
            bool seen = false;
            for (const KEY_ADDRESS &o : out)
                seen = seen || sameAddress(o, k);
            if (!seen)
                out.append(k);
        }
    }
    return out;
}
