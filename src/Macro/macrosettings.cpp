#include "macrosettings.h"

#include "generalFunc/boxpath.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"

namespace lumbra {

namespace {

// A missing key keeps def; a value that is no number, or out of [low, high],
// is named in the log so that a typo on the box does not go unseen.
int readInt(const QString &path, const char *key, int def, int low, int high)
{
    const QVariant v = unitTool::GetIniValue(QString("macro/") + key, path);
    if (!v.isValid())
        return def;
    bool ok = false;
    const int n = v.toString().trimmed().toInt(&ok);
    if (!ok) {
        zlog_error(g_zlog, "%s: macro/%s \"%s\" is no number, %d used", path.toLocal8Bit().constData(), key,
                   v.toString().toLocal8Bit().constData(), def);
        return def;
    }
    const int bounded = qBound(low, n, high);
    if (bounded != n)
        zlog_error(g_zlog, "%s: macro/%s %d out of %d..%d, %d used", path.toLocal8Bit().constData(), key, n, low,
                   high, bounded);
    return bounded;
}

}  // namespace

QString MacroSettings::iniPath()
{
    return boxPath("/usr/brenta/iot_work/iot_config.ini");
}

MacroSettings MacroSettings::fromBox()
{
    const QString path = iniPath();
    MacroSettings s;
    s.timeLimitMs = readInt(path, "time_limit_ms", s.timeLimitMs, 10, 3600000);
    s.memoryLimitKb = readInt(path, "memory_limit_kb", s.memoryLimitKb, 512, 1024 * 1024);
    s.startWaitMs = readInt(path, "start_wait_ms", s.startWaitMs, 0, 600000);
    s.sandbox = readInt(path, "sandbox", 0, 0, 1) != 0;
    return s;
}

}  // namespace lumbra
