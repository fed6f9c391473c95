#include "zlog.h"

#include "zlogconf.h"
#include "zlogformat.h"
#include "zlogrotatingsink.h"
#include "secrets.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

using lumbra::zlogconf::Config;
using lumbra::zlogconf::Output;
using lumbra::zlogconf::Rule;
using lumbra::zlogfmt::Format;

namespace {

const char *const kDefaultFormat = "%d(%F %T).%ms %-5V [%p:%F:%L %U] %m%n";

struct Route {
    Rule rule;
    std::shared_ptr<const Format> format;
    std::shared_ptr<spdlog::sinks::sink> sink;
};

// Built once per configuration; categories only read it, so a new
// configuration can replace it while other threads log.
struct Setup {
    std::vector<Route> routes;
};

std::mutex g_setupMutex;
std::shared_ptr<const Setup> g_setup;
bool g_initialised = false;

}  // namespace

// The routes of one category point into the setup they came from; both are
// published together so that a reader never holds routes without their setup.
struct Attached {
    std::shared_ptr<const Setup> setup;
    std::vector<const Route *> routes;
};

struct zlog_category_t {
    std::string name;
    std::shared_ptr<const Attached> attached;
    std::atomic<unsigned> enabledMask{0};  // bit per level / 20
};

namespace {

std::map<std::string, std::unique_ptr<zlog_category_t>> g_categories;

unsigned levelBit(int level)
{
    int idx = level / 20;
    return idx >= 0 && idx < 32 ? 1u << idx : 0;
}

std::shared_ptr<spdlog::sinks::sink> makeSink(const Rule &rule,
                                              std::map<std::string, std::shared_ptr<spdlog::sinks::sink>> &files)
{
    std::shared_ptr<spdlog::sinks::sink> sink;
    if (rule.output == Output::Stdout) {
        sink = std::make_shared<spdlog::sinks::stdout_sink_mt>();
    } else if (rule.output == Output::Stderr) {
        sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    } else {
        auto &shared = files[rule.path];  // one handle per file, whatever the rules
        if (!shared) {
            if (rule.maxSize > 0)
                shared = std::make_shared<lumbra::ZlogRotatingSink>(rule.path, rule.maxSize, rule.maxFiles,
                                                                    rule.archivePattern);
            else {
                lumbra::restrictLogFile(rule.path);
                shared = std::make_shared<spdlog::sinks::basic_file_sink_mt>(rule.path);
            }
        }
        sink = shared;
    }
    // Lines are rendered by our own formats; the sink only writes them.
    sink->set_formatter(std::make_unique<spdlog::pattern_formatter>("%v", spdlog::pattern_time_type::local, ""));
    return sink;
}

std::shared_ptr<const Setup> buildSetup(const Config &config, std::string &error)
{
    auto setup = std::make_shared<Setup>();
    std::map<std::string, std::shared_ptr<const Format>> formats;
    std::map<std::string, std::shared_ptr<spdlog::sinks::sink>> files;
    auto defaultFormat = std::make_shared<const Format>(kDefaultFormat);
    try {
        for (const Rule &rule : config.rules) {
            Route route{rule, defaultFormat, makeSink(rule, files)};
            if (!rule.formatName.empty()) {
                auto &f = formats[rule.formatName];
                if (!f)
                    f = std::make_shared<const Format>(config.formats.at(rule.formatName));
                route.format = f;
            }
            setup->routes.push_back(std::move(route));
        }
    } catch (const std::exception &e) {  // spdlog reports files it cannot open by throwing
        error = e.what();
        return nullptr;
    }
    return setup;
}

std::shared_ptr<const Setup> fallbackSetup()
{
    Config config;
    Rule rule;
    rule.category = "*";
    rule.level = ZLOG_LEVEL_INFO;
    config.rules.push_back(rule);
    std::string ignored;
    return buildSetup(config, ignored);
}

void attach(zlog_category_t &cat, const std::shared_ptr<const Setup> &setup)
{
    auto attached = std::make_shared<Attached>();
    attached->setup = setup;
    unsigned mask = 0;
    for (const Route &r : setup->routes) {
        bool any = false;
        for (int lvl = ZLOG_LEVEL_DEBUG; lvl <= ZLOG_LEVEL_FATAL; lvl += 20) {
            if (r.rule.accepts(cat.name, lvl)) {
                mask |= levelBit(lvl);
                any = true;
            }
        }
        if (any)
            attached->routes.push_back(&r);
    }
    std::atomic_store(&cat.attached, std::shared_ptr<const Attached>(attached));
    cat.enabledMask.store(mask);
}

bool readFile(const char *path, std::string &text)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    text = ss.str();
    return true;
}

void install(std::shared_ptr<const Setup> setup)
{
    std::lock_guard<std::mutex> lock(g_setupMutex);
    g_setup = std::move(setup);
    g_initialised = true;
    for (auto &entry : g_categories)
        attach(*entry.second, g_setup);
}

}  // namespace

int zlog_init(const char *confpath)
{
    std::string text, error;
    Config config;
    std::shared_ptr<const Setup> setup;
    if (!readFile(confpath, text))
        error = "cannot read the file";
    else if (lumbra::zlogconf::parse(text, config, error))
        setup = buildSetup(config, error);
    for (const auto &w : config.warnings)
        fprintf(stderr, "zlog: %s: %s\n", confpath, w.c_str());
    if (!setup) {
        fprintf(stderr, "zlog: %s: %s; logging INFO and above to stdout\n", confpath, error.c_str());
        install(fallbackSetup());
        return -1;
    }
    install(setup);
    return 0;
}

zlog_category_t *zlog_get_category(const char *cname)
{
    std::lock_guard<std::mutex> lock(g_setupMutex);
    if (!g_initialised || !cname)
        return nullptr;
    auto &slot = g_categories[cname];
    if (!slot) {
        slot = std::make_unique<zlog_category_t>();
        slot->name = cname;
        attach(*slot, g_setup);
    }
    return slot.get();
}

void zlog_fini()
{
    install(std::make_shared<const Setup>());
    std::lock_guard<std::mutex> lock(g_setupMutex);
    g_initialised = false;
}

bool zlog_level_enabled(const zlog_category_t *category, int level)
{
    return category && (category->enabledMask.load(std::memory_order_relaxed) & levelBit(level));
}

void zlog(zlog_category_t *category, const char *file, size_t, const char *func, size_t, long line,
          int level, const char *format, ...)
{
    if (!zlog_level_enabled(category, level))
        return;
    char stackBuf[1024];
    std::string heapBuf;
    va_list args;
    va_start(args, format);
    int n = vsnprintf(stackBuf, sizeof stackBuf, format, args);
    va_end(args);
    if (n < 0)
        return;
    const char *msg = stackBuf;
    if (static_cast<size_t>(n) >= sizeof stackBuf) {
        heapBuf.resize(static_cast<size_t>(n) + 1);
        va_start(args, format);
        vsnprintf(heapBuf.data(), heapBuf.size(), format, args);
        va_end(args);
        msg = heapBuf.data();
    }

    // Whatever a caller logs (a cloud message, a configuration line), a
    // password in it never reaches a log file.
    if (lumbra::mayHoldSecret(msg, static_cast<size_t>(n))) {
        heapBuf = lumbra::maskSecrets(QByteArray(msg, n)).toStdString();
        msg = heapBuf.data();
        n = static_cast<int>(heapBuf.size());
    }
    lumbra::zlogfmt::Record rec{category->name.c_str(), level, file, func, line, msg,
                                static_cast<size_t>(n), {}};
    clock_gettime(CLOCK_REALTIME, &rec.time);
    auto attached = std::atomic_load(&category->attached);
    std::string rendered;
    for (const Route *r : attached->routes) {
        if (!r->rule.accepts(category->name, level))
            continue;
        rendered.clear();
        r->format->render(rec, rendered);
        spdlog::details::log_msg out(spdlog::source_loc{}, category->name, spdlog::level::info,
                                     spdlog::string_view_t(rendered.data(), rendered.size()));
        try {
            r->sink->log(out);
            r->sink->flush();
        } catch (const std::exception &) {
            // A full disk must not take the gateway down; the line is lost.
        }
    }
}
