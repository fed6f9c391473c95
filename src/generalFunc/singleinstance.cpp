#include "singleinstance.h"

#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace lumbra {

InstanceLock lockSingleInstance(const QString &path, QString *why)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    // O_NOFOLLOW: the file may sit in a directory others can write to, and
    // a planted link must not make us truncate a file of the link's choice.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        *why = QString::fromLocal8Bit(strerror(errno));
        return InstanceLock::Unusable;
    }
    // flock is atomic where counting processes by name was not: of two
    // gateways started together exactly one gets it.
    if (flock(fd, LOCK_EX | LOCK_NB) < 0) {
        const int err = errno;
        ::close(fd);
        if (err == EWOULDBLOCK)
            return InstanceLock::HeldByAnother;
        *why = QString::fromLocal8Bit(strerror(err));
        return InstanceLock::Unusable;
    }
    const QByteArray pid = QByteArray::number(static_cast<qint64>(getpid())) + "\n";
    if (ftruncate(fd, 0) < 0 || write(fd, pid.constData(), pid.size()) != pid.size())
        *why = QString::fromLocal8Bit(strerror(errno));  // the lock holds all the same
    // The descriptor stays open on purpose: the lock lives as long as the
    // process, and the kernel drops it when the process ends.
    return InstanceLock::Held;
}

}  // namespace lumbra
