// The poll set: the addresses services asked for, merged into read requests.
#pragma once

#include "address.h"
#include "settings.h"

#include <lumbra/driver.h>

#include <string>
#include <vector>

namespace lumbra::modbus {

struct Entry {
    int station = 0;
    Target target;
    int count = 1;          // units as getData takes them
    std::string reg;        // the name as the gateway wrote it, for callbacks
    std::vector<uint16_t> image;  // what consumers saw last; empty before the first value
    int index() const { return encodeIndex(target); }
    int firstCell() const { return target.address; }
    int cellCount() const { return target.bitOfWord() ? 1 : count; }
};

struct Block {
    int station = 0;
    Area area = Area::HoldingRegisters;
    int start = 0;
    int count = 0;
};

// Unresolvable entries and stations the framing cannot poll are left out;
// duplicates (several services asking for one value) collapse into one.
std::vector<Entry> pollEntries(const KEY_ADDRESS *list, int count, int defaultStation, bool canPollBroadcast);
std::vector<Block> mergeBlocks(const std::vector<Entry> &entries, const Settings &s);

}  // namespace lumbra::modbus
