// Last known device values, one 16-bit cell per register or bit, and how
// good each is.
#pragma once

#include "address.h"

#include <lumbra/driver.h>

#include <array>
#include <bitset>
#include <cstdint>
#include <memory>

namespace lumbra::modbus {

// Pages are allocated on first store, so a link polling a few hundred
// addresses costs kilobytes, not the full 64 K cells per area and station.
class Cache {
public:
    // False (cells untouched) unless every cell of the range holds a value
    // the device sent at some time.
    bool load(int station, Area area, int start, int count, uint16_t *cells) const;
    // Values the device sent (or confirmed): they become GOOD.
    void store(int station, Area area, int start, int count, const uint16_t *cells);
    // A failed read: the values stay, their quality says why they are old.
    void mark(int station, Area area, int start, int count, int quality);
    // The worst quality in the range: GOOD only when every cell is.
    int quality(int station, Area area, int start, int count) const;
    // quality() and load() in one walk over the pages, for every value read:
    // the quality, with cells filled when load() would have filled them
    // (*known says so).
    int read(int station, Area area, int start, int count, uint16_t *cells, bool *known) const;

private:
    static constexpr int kPageCells = 256;
    struct Page {
        std::array<uint16_t, kPageCells> value{};
        std::array<uint8_t, kPageCells> quality;
        std::bitset<kPageCells> known;
        Page() { quality.fill(LUMBRA_QUALITY_NOT_READ); }
    };
    struct Space {
        std::array<std::unique_ptr<Page>, kAddressSpace / kPageCells> pages;
    };
    const Page *page(int station, Area area, int address) const;
    Page &ensurePage(int station, Area area, int address);
    bool known(int station, Area area, int address) const;

    std::array<std::unique_ptr<Space>, kStationCount * kAreaCount> m_spaces;
};

}  // namespace lumbra::modbus
