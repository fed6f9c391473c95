// Last known device values, one 16-bit cell per register or bit.
#pragma once

#include "address.h"

#include <array>
#include <bitset>
#include <cstdint>
#include <memory>

namespace lumbra::modbus {

constexpr int kStationCount = 256;

// Pages are allocated on first store, so a link polling a few hundred
// addresses costs kilobytes, not the full 64 K cells per area and station.
class Cache {
public:
    // False (cells untouched) unless every cell of the range was stored before.
    bool load(int station, Area area, int start, int count, uint16_t *cells) const;
    void store(int station, Area area, int start, int count, const uint16_t *cells);
    bool known(int station, Area area, int address) const;

private:
    static constexpr int kPageCells = 256;
    struct Page {
        std::array<uint16_t, kPageCells> value{};
        std::bitset<kPageCells> known;
    };
    struct Space {
        std::array<std::unique_ptr<Page>, kAddressSpace / kPageCells> pages;
    };
    const Page *page(int station, Area area, int address) const;

    std::array<std::unique_ptr<Space>, kStationCount * kAreaCount> m_spaces;
};

}  // namespace lumbra::modbus
