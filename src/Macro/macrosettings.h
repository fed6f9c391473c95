// The box's limits for scripts: section [macro] of
// /usr/brenta/iot_work/iot_config.ini. The platform cannot change them: they
// protect the box from the scripts it sends.
#pragma once

#include <QString>

namespace lumbra {

struct MacroSettings {
    // Wall time one run may take, waits included; past it the script is stopped.
    int timeLimitMs = 1000;
    // What the interpreter may hold, all scripts and their globals together.
    int memoryLimitKb = 8192;
    // How long run-once scripts wait at most for every link's first poll cycle.
    int startWaitMs = 10000;
    // Without os.execute, io.popen, os.exit, C modules, and writes outside
    // the working directory.
    bool sandbox = false;

    // Unset or unreadable keys keep their default; out-of-range ones are
    // clamped with a log line.
    static MacroSettings fromBox();
    static QString iniPath();
};

}  // namespace lumbra
