// Two pseudo-terminals joined by socat: a serial line for tests. Whatever is
// written to one end comes out of the other.
#pragma once

#include <QByteArray>
#include <QString>
#include <sys/types.h>

namespace lumbra::test {

class PtyPair {
public:
    // Starts socat with its two ends linked at linkA and linkB (folders are
    // created) and waits up to timeoutMs for both links.
    PtyPair(const QString &linkA, const QString &linkB, int timeoutMs = 5000);
    ~PtyPair();  // stop()
    PtyPair(const PtyPair &) = delete;
    PtyPair &operator=(const PtyPair &) = delete;

    // True once both links exist and socat runs.
    bool ok() const { return m_ok; }
    QString linkA() const { return m_linkA; }
    QString linkB() const { return m_linkB; }
    pid_t pid() const { return m_pid; }
    // What socat said on stderr, for failure messages.
    QString log() const;
    // Stops socat (the line vanishes under whoever holds an end). Only our
    // own child is signalled, by its pid.
    void stop();

private:
    bool waitForLinks(int timeoutMs);
    bool exited();

    QString m_linkA;
    QString m_linkB;
    QString m_logPath;
    pid_t m_pid = -1;
    bool m_ok = false;
};

}  // namespace lumbra::test
