#include "localregisters.h"

#include <cstring>

namespace {

const int kCells[] = {65536, 65536, 65536, 1000};

}  // namespace

namespace {

// Null when there is no memory: the area then answers -1 like a bad address.
template <typename T>
T *zeroed(int cells)
{
    return static_cast<T *>(std::calloc(static_cast<size_t>(cells), sizeof(T)));
}

}  // namespace

LocalRegisters::LocalRegisters() : m_bits(zeroed<uint8_t>(kCells[LB]))
{
    for (int area : {LW, RWI, LWF})
        m_words[area].reset(zeroed<uint16_t>(kCells[area]));
}

// Asked for every value any service reads, device values included, so it
// looks at the characters rather than compare whole texts.
int LocalRegisters::indexOf(const QString &reg)
{
    const int n = reg.size();
    if (n < 2 || n > 3)
        return -1;
    const QChar *c = reg.constData();
    if (n == 2 && c[0] == QLatin1Char('L'))
        return c[1] == QLatin1Char('W') ? LW : c[1] == QLatin1Char('B') ? LB : -1;
    if (n == 3 && c[0] == QLatin1Char('R') && c[1] == QLatin1Char('W') && c[2] == QLatin1Char('I'))
        return RWI;
    if (n == 3 && c[0] == QLatin1Char('L') && c[1] == QLatin1Char('W') && c[2] == QLatin1Char('F'))
        return LWF;
    return -1;
}

bool LocalRegisters::inRange(int area, int addr, int len)
{
    return area >= 0 && area <= LWF && addr >= 0 && len > 0 && addr < kCells[area] &&
           len <= kCells[area] - addr;
}

bool LocalRegisters::usable(int area, int addr, int len) const
{
    return inRange(area, addr, len) && (area == LB ? m_bits != nullptr : m_words[area] != nullptr);
}

int LocalRegisters::set(int area, int addr, int len, const uint8_t *data)
{
    if (!data || !usable(area, addr, len))
        return -1;
    QMutexLocker lock(&m_mutex);
    if (area == LB) {
        bool changed = false;
        for (int i = 0; i < len; ++i) {
            uint8_t bit = data[i] ? 1 : 0;
            changed |= m_bits[addr + i] != bit;
            m_bits[addr + i] = bit;
        }
        return changed ? 1 : 0;
    }
    uint16_t *cells = m_words[area].get() + addr;
    size_t bytes = static_cast<size_t>(len) * 2;
    if (std::memcmp(cells, data, bytes) == 0)
        return 0;
    std::memcpy(cells, data, bytes);
    return 1;
}

int LocalRegisters::get(int area, int addr, int len, uint8_t *data) const
{
    if (!data || !usable(area, addr, len))
        return -1;
    QMutexLocker lock(&m_mutex);
    if (area == LB)
        std::memcpy(data, m_bits.get() + addr, len);
    else
        std::memcpy(data, m_words[area].get() + addr, static_cast<size_t>(len) * 2);
    return 1;
}
