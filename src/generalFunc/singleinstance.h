// The box runs one gateway: the first process takes an exclusive lock on a
// pid file and keeps it until it ends, whatever way it ends.
#pragma once

#include <QString>

namespace lumbra {

enum class InstanceLock { Held, HeldByAnother, Unusable };

// Takes the lock on path and writes our pid into the file. Unusable (with
// *why set) when the file cannot be opened or locked for another reason.
InstanceLock lockSingleInstance(const QString &path, QString *why);

}  // namespace lumbra
