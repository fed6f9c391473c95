// Process-wide values read across the gateway.
#pragma once

#include "zlog.h"

#include <QString>
#include <cstdint>

// The one logging category, "iot"; nullptr until unitTool::my_zlog_init().
extern zlog_category_t *g_zlog;

// Seconds east of UTC; 28800 (UTC+8) until start-up reads "./timeZone".
extern int32_t g_zonetime;

// The application version, read before main from the box's version INI file.
extern QString g_IotVersion;
