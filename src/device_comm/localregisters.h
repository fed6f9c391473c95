// The box's own register memory: LW, LB, RWI and LWF.
#pragma once

#include <QMutex>
#include <QString>

#include <cstdint>
#include <cstdlib>
#include <memory>

class LocalRegisters {
public:
    enum Area { LW = 0, LB = 1, RWI = 2, LWF = 3 };

    LocalRegisters();
    // 0..3 for "LW", "LB", "RWI", "LWF"; -1 for every other name.
    static int indexOf(const QString &reg);

    // len counts cells (16-bit words, or bits stored one byte each). Returns
    // -1 out of range, 0 when the bytes were already stored, 1 when written.
    int set(int area, int addr, int len, const uint8_t *data);
    int get(int area, int addr, int len, uint8_t *data) const;
    static bool inRange(int area, int addr, int len);

private:
    bool usable(int area, int addr, int len) const;
    // Zeroed by the allocator rather than written: pages that nothing ever
    // writes stay out of the resident set (the areas hold 320 KB).
    struct Free {
        void operator()(void *p) const { std::free(p); }
    };
    template <typename T>
    using Cells = std::unique_ptr<T[], Free>;

    mutable QMutex m_mutex;
    Cells<uint16_t> m_words[4];  // LB uses m_bits instead
    Cells<uint8_t> m_bits;
};
