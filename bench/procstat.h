// What /proc tells about a process, for the benchmarks.
#pragma once

#include <QFile>
#include <QString>

namespace lumbra::bench {

// VmRSS of a process in kB, or -1.
inline long residentKb(qint64 pid)
{
    QFile status(QString("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLong();
    }
    return -1;
}

}  // namespace lumbra::bench
