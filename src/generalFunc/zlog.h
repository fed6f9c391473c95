// zlog-style logging over spdlog. The call shape of zlog is kept so that the
// code reads like the boxes' own: zlog_init, zlog_get_category, zlog_info(...).
#pragma once

#include <cstddef>
#include <memory>

namespace spdlog::sinks { class sink; }

enum zlog_level {
    ZLOG_LEVEL_DEBUG = 20,
    ZLOG_LEVEL_INFO = 40,
    ZLOG_LEVEL_NOTICE = 60,
    ZLOG_LEVEL_WARN = 80,
    ZLOG_LEVEL_ERROR = 100,
    ZLOG_LEVEL_FATAL = 120,
};

struct zlog_category_t;

// Reads the configuration at confpath. Returns 0 on success, -1 when the file is
// missing or garbled; logging then falls back to INFO and above on stdout.
int zlog_init(const char *confpath);

// Returns the category, or nullptr before zlog_init was called.
zlog_category_t *zlog_get_category(const char *cname);

// Drops every rule and closes every file.
void zlog_fini();

// True when a line of this level would reach at least one output; lets callers
// skip the formatting work.
bool zlog_level_enabled(const zlog_category_t *category, int level);

void zlog(zlog_category_t *category, const char *file, size_t filelen,
          const char *func, size_t funclen, long line, int level,
          const char *format, ...) __attribute__((format(printf, 8, 9)));

// A service split over several files logs under one source name: such a file
// redefines LUMBRA_LOG_FILE after its includes.
#define LUMBRA_LOG_FILE __FILE__

// The arguments are evaluated only for a line that is written: a DEBUG line
// in a hot path costs one test while DEBUG is off, not its conversions.
#define LUMBRA_ZLOG_AT(cat, level, ...)                                        \
    do {                                                                       \
        zlog_category_t *lumbra_zlog_cat_ = (cat);                             \
        if (zlog_level_enabled(lumbra_zlog_cat_, level))                       \
            zlog(lumbra_zlog_cat_, LUMBRA_LOG_FILE, sizeof(LUMBRA_LOG_FILE) - 1, \
                 __func__, sizeof(__func__) - 1, __LINE__, level, __VA_ARGS__); \
    } while (0)

#define zlog_debug(cat, ...) LUMBRA_ZLOG_AT(cat, ZLOG_LEVEL_DEBUG, __VA_ARGS__)
#define zlog_info(cat, ...) LUMBRA_ZLOG_AT(cat, ZLOG_LEVEL_INFO, __VA_ARGS__)
#define zlog_notice(cat, ...) LUMBRA_ZLOG_AT(cat, ZLOG_LEVEL_NOTICE, __VA_ARGS__)
#define zlog_warn(cat, ...) LUMBRA_ZLOG_AT(cat, ZLOG_LEVEL_WARN, __VA_ARGS__)
#define zlog_error(cat, ...) LUMBRA_ZLOG_AT(cat, ZLOG_LEVEL_ERROR, __VA_ARGS__)
#define zlog_fatal(cat, ...) LUMBRA_ZLOG_AT(cat, ZLOG_LEVEL_FATAL, __VA_ARGS__)
