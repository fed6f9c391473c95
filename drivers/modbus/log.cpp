#include "log.h"

#include <cstdarg>
#include <cstdio>

namespace lumbra::modbus {

namespace {

constexpr auto kRepeatInterval = std::chrono::minutes(1);
// Keys are faults per block: a bounded table still covers every block of a
// big link, and forgetting them all at once only costs one extra line each.
constexpr size_t kMaxKeys = 4096;
constexpr size_t kMaxEarlyLines = 16;
constexpr int kLineSize = 320;

}  // namespace

uint64_t faultKey(Fault fault, int station, Area area, int start, int detail)
{
    return (static_cast<uint64_t>(fault) << 40) | (static_cast<uint64_t>(detail & 0xFF) << 32) |
           (static_cast<uint64_t>(station & 0xFF) << 24) |
           (static_cast<uint64_t>(area) << 16) | static_cast<uint64_t>(start & 0xFFFF);
}

void Log::setSink(lumbra_log_cb sink)
{
    m_sink = sink;
    if (!m_sink)
        return;
    for (const auto &[level, text] : m_early)
        m_sink(m_linkId, level, text.c_str());
    m_early.clear();
}

bool Log::due(uint64_t key, bool forever, int *repeats)
{
    auto now = std::chrono::steady_clock::now();
    if (m_seen.size() >= kMaxKeys && !m_seen.count(key))
        m_seen.clear();
    auto [it, fresh] = m_seen.try_emplace(key);
    Seen &s = it->second;
    if (!fresh && (s.forever || now - s.last < kRepeatInterval)) {
        ++s.repeats;
        return false;
    }
    *repeats = fresh ? 0 : s.repeats;
    s.last = now;
    s.repeats = 0;
    s.forever = forever;
    return true;
}

void Log::emit(int level, const char *text)
{
    if (m_sink)
        m_sink(m_linkId, level, text);
    else if (m_early.size() < kMaxEarlyLines)
        m_early.emplace_back(level, text);
}

void Log::put(Repeat repeat, uint64_t key, int level, const char *format, va_list args)
{
    int repeats = 0;
    if (repeat != Repeat::Always && !due(key, repeat == Repeat::Never, &repeats))
        return;
    char text[kLineSize];
    int n = std::vsnprintf(text, sizeof text, format, args);
    if (repeats > 0 && n >= 0 && n < kLineSize)
        std::snprintf(text + n, sizeof text - static_cast<size_t>(n), " (%d more)", repeats);
    emit(level, text);
}

void Log::line(int level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    put(Repeat::Always, 0, level, format, args);
    va_end(args);
}

void Log::limited(uint64_t key, int level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    put(Repeat::Minutely, key, level, format, args);
    va_end(args);
}

void Log::once(uint64_t key, int level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    put(Repeat::Never, key, level, format, args);
    va_end(args);
}

}  // namespace lumbra::modbus
