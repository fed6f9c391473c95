#include "agentlog.h"

#include "generalFunc/secrets.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <unistd.h>

namespace agent {
namespace {

std::atomic<bool> g_verbose{false};
std::atomic<const char *> g_name{"agent"};

const char *levelName(Level level)
{
    switch (level) {
    case Level::Debug: return "DEBUG";
    case Level::Info: return "INFO";
    case Level::Warn: return "WARN";
    case Level::Error: return "ERROR";
    }
    return "INFO";
}

}  // namespace

void setVerbose(bool on) { g_verbose = on; }
void setLogName(const char *name) { g_name = name; }
bool verbose() { return g_verbose; }

void logLine(Level level, const char *format, ...)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char line[2048];
    size_t n = strftime(line, sizeof line, "%Y-%m-%d %H:%M:%S", &local);
    n += snprintf(line + n, sizeof line - n, ".%03ld %s %s: ", now.tv_nsec / 1000000, levelName(level),
                  g_name.load());
    va_list args;
    va_start(args, format);
    int body = vsnprintf(line + n, sizeof line - n, format, args);
    va_end(args);
    // Several threads log; one write per line keeps lines whole on a pipe.
    n = body < 0 ? n : std::min(n + static_cast<size_t>(body), sizeof line - 2);
    line[n++] = '\n';
    // Cloud messages logged with -v carry FTP and broker passwords.
    if (lumbra::mayHoldSecret(line, n)) {
        const QByteArray masked = lumbra::maskSecrets(QByteArray(line, static_cast<int>(n)));
        ssize_t ignored = write(STDOUT_FILENO, masked.constData(), masked.size());
        (void)ignored;
        return;
    }
    ssize_t ignored = write(STDOUT_FILENO, line, n);
    (void)ignored;
}

QByteArray preview(const QByteArray &text, int max)
{
    if (text.size() <= max)
        return text;
    return text.left(max) + "...(" + QByteArray::number(text.size()) + " bytes)";
}

}  // namespace agent
