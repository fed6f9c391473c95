// The poll set: the addresses services asked for, merged into read requests.
#pragma once

#include "address.h"
#include "settings.h"

#include <lumbra/driver.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace lumbra::modbus {

struct Entry {
    int station = 0;
    Target target;
    int count = 1;          // units as getData takes them
    char reg[LUMBRA_REG_NAME_SIZE + 1] = {};  // the name as the gateway wrote it, for callbacks
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
    std::vector<int> entries;  // the entries whose cells it reads, in part or whole
    int end() const { return start + count; }
};

// Addresses that a read must not run across because the device refused a
// read that did, per station and area. They outlive every re-merge.
class Barriers {
public:
    // False when the table is full (the block then stays refused).
    bool add(int station, Area area, int address);
    // True when one lies in [from, to).
    bool within(int station, Area area, int from, int to) const;

private:
    std::set<uint32_t> m_cuts;
};

// One address as the gateway names it: by its text, or, with `byIndex`, by
// its index when it has one. False when it names nothing this link can poll.
bool keyEntry(const KEY_ADDRESS &k, int defaultStation, bool canPollBroadcast, const AddressFormat &format,
              bool byIndex, Entry *out);
// Unresolvable entries and stations the framing cannot poll are left out;
// duplicates (several services asking for one value) collapse into one.
// The result is sorted by station, area and first cell.
std::vector<Entry> pollEntries(const KEY_ADDRESS *list, int count, int defaultStation, bool canPollBroadcast,
                               const AddressFormat &format);
std::vector<Block> mergeBlocks(const std::vector<Entry> &entries, const Settings &s, const Barriers &barriers);
// Where to cut a block the device refused as a whole: between the runs of
// configured cells when it bridges unconfigured ones, else between its
// entries. Empty when it cannot be cut.
std::vector<int> splitPoints(const Block &b, const std::vector<Entry> &entries);

}  // namespace lumbra::modbus
