// The driver's log lines, handed to the gateway's callback. A fault that
// recurs every poll is written once, then at most once a minute with the
// number of repeats in between, so a dead device cannot flood the box.
#pragma once

#include "address.h"

#include <lumbra/driver.h>

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace lumbra::modbus {

enum class Fault : uint8_t {
    Garbage,
    ForeignTransaction,
    Truncated,
    NoReply,
    BadReply,
    Exception,
    ForeignUnit,
    Noise,
    Setup,
    WriteFailed,
    Split,
    Flooded,
};

// One key per fault kind, and per block (and detail, such as an exception
// code) where they matter.
uint64_t faultKey(Fault fault, int station = 0, Area area = Area::Coils, int start = 0, int detail = 0);

class Log {
public:
    void setSink(lumbra_log_cb sink);
    void setLink(int linkId) { m_linkId = linkId; }
    void line(int level, const char *format, ...) __attribute__((format(printf, 3, 4)));
    void limited(uint64_t key, int level, const char *format, ...) __attribute__((format(printf, 4, 5)));
    // Once for the life of the loaded driver.
    void once(uint64_t key, int level, const char *format, ...) __attribute__((format(printf, 4, 5)));

private:
    struct Seen {
        std::chrono::steady_clock::time_point last;
        int repeats = 0;
        bool forever = false;
    };
    enum class Repeat { Always, Minutely, Never };
    // False when the line is held back; else *repeats says how many were.
    bool due(uint64_t key, bool forever, int *repeats);
    void put(Repeat repeat, uint64_t key, int level, const char *format, va_list args);
    void emit(int level, const char *text);

    lumbra_log_cb m_sink = nullptr;
    int m_linkId = 0;
    std::unordered_map<uint64_t, Seen> m_seen;
    // Lines from before the gateway handed its callback (set-up faults).
    std::vector<std::pair<int, std::string>> m_early;
};

}  // namespace lumbra::modbus
