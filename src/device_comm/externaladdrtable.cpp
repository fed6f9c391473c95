#include "externaladdrtable.h"

#include "ctext.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <tuple>

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
    return ExternalAddr{link, reg, addr, station, len, type, index};
}

KEY_ADDRESS ExternalAddr::key() const
{
    return ExternalAddrTable::makeKey(link, reg, addr, station, len, type, index);
}

void ExternalAddrTable::set(int type, QVector<ExternalAddr> list)
{
    list.squeeze();
    QMutexLocker lock(&m_mutex);
    m_byType[type] = std::move(list);
}

namespace {

bool sameAddress(const KEY_ADDRESS &a, const KEY_ADDRESS &b)
{
    return a.station == b.station && a.len == b.len && a.index == b.index && std::strcmp(a.reg, b.reg) == 0 &&
           std::strcmp(a.addr, b.addr) == 0;
}

bool addressBefore(const KEY_ADDRESS &a, const KEY_ADDRESS &b)
{
    if (int r = std::strcmp(a.reg, b.reg))
        return r < 0;
    if (int r = std::strcmp(a.addr, b.addr))
        return r < 0;
    return std::tie(a.station, a.len, a.index) < std::tie(b.station, b.len, b.index);
}

}  // namespace

// Tens of thousands of points: duplicates are found by sorting positions,
// not by pairwise compares or a set of formatted texts.
std::vector<KEY_ADDRESS> ExternalAddrTable::forLink(const QString &link) const
{
    std::vector<KEY_ADDRESS> all;
    {
        QMutexLocker lock(&m_mutex);
        const auto onLink = [&](const auto &take) {
            for (const QVector<ExternalAddr> &list : m_byType)
                for (const ExternalAddr &a : list)
                    if (a.link == link)
                        take(a);
        };
        // Counted first: an address is 128 bytes here, and a vector grown by
        // doubling holds three times the list for a moment at start-up.
        size_t count = 0;
        onLink([&count](const ExternalAddr &) { ++count; });
        all.reserve(count);
        onLink([&all](const ExternalAddr &a) { all.push_back(a.key()); });
    }
    std::vector<int> order(all.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](int x, int y) { return addressBefore(all[size_t(x)], all[size_t(y)]); });
    std::vector<char> repeated(all.size(), 0);
    for (size_t i = 1; i < order.size(); ++i)
        if (sameAddress(all[size_t(order[i - 1])], all[size_t(order[i])]))
            repeated[size_t(order[i])] = 1;
    // Kept in place, in their order: a second vector would hold them twice.
    size_t kept = 0;
    for (size_t i = 0; i < all.size(); ++i)
        if (!repeated[i])
            all[kept++] = all[i];
    all.resize(kept);
    return all;
}
