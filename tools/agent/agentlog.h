// One line per event on stdout, where journald picks it up:
// "2024-05-01 12:00:00.123 INFO agent: broker 127.0.0.1:1883 connected".
#pragma once

#include <QByteArray>

namespace agent {

enum class Level { Debug, Info, Warn, Error };

void setVerbose(bool on);
bool verbose();
// The word after the level on every line ("agent" unless set); other
// programs that share these parts name themselves.
void setLogName(const char *name);

void logLine(Level level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// At most max bytes of text, marked when cut, for log lines about payloads.
QByteArray preview(const QByteArray &text, int max = 200);

}  // namespace agent

#define AGENT_DEBUG(...)                                   \
    do {                                                   \
        if (agent::verbose())                              \
            agent::logLine(agent::Level::Debug, __VA_ARGS__); \
    } while (0)
#define AGENT_INFO(...) agent::logLine(agent::Level::Info, __VA_ARGS__)
#define AGENT_WARN(...) agent::logLine(agent::Level::Warn, __VA_ARGS__)
#define AGENT_ERROR(...) agent::logLine(agent::Level::Error, __VA_ARGS__)
