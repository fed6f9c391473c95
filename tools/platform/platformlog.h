// lumbra-platform logs like the agent, one line per event on stdout, with
// its own name: "2026-11-25 10:00:00.123 INFO platform: ...".
#pragma once

#include "agentlog.h"

#define PLOG_DEBUG(...) AGENT_DEBUG(__VA_ARGS__)
#define PLOG_INFO(...) AGENT_INFO(__VA_ARGS__)
#define PLOG_WARN(...) AGENT_WARN(__VA_ARGS__)
#define PLOG_ERROR(...) AGENT_ERROR(__VA_ARGS__)
