#include "ptypair.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace lumbra::test {
namespace {

constexpr int kPollMs = 10;
constexpr int kStopWaitMs = 3000;

QByteArray ptyAddress(const QString &link)
{
    return "pty,raw,echo=0,link=" + link.toLocal8Bit();
}

pid_t spawnSocat(const QString &linkA, const QString &linkB, const QString &logPath)
{
    const QByteArray a = ptyAddress(linkA), b = ptyAddress(linkB), log = logPath.toLocal8Bit();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, log.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    char *argv[] = {const_cast<char *>("socat"), const_cast<char *>("-d"), const_cast<char *>("-d"),
                    const_cast<char *>(a.constData()), const_cast<char *>(b.constData()), nullptr};
    pid_t pid = -1;
    if (posix_spawnp(&pid, "socat", &actions, nullptr, argv, environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

}  // namespace

PtyPair::PtyPair(const QString &linkA, const QString &linkB, int timeoutMs)
    : m_linkA(linkA), m_linkB(linkB), m_logPath(linkA + ".socat.log")
{
    QDir().mkpath(QFileInfo(linkA).path());
    QDir().mkpath(QFileInfo(linkB).path());
    m_pid = spawnSocat(linkA, linkB, m_logPath);
    m_ok = m_pid > 0 && waitForLinks(timeoutMs);
}

PtyPair::~PtyPair()
{
    stop();
}

QString PtyPair::log() const
{
    QFile f(m_logPath);
    return f.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(f.readAll()) : QString();
}

bool PtyPair::exited()
{
    int status = 0;
    if (m_pid <= 0)
        return true;
    if (::waitpid(m_pid, &status, WNOHANG) != m_pid)
        return false;
    m_pid = -1;
    return true;
}

bool PtyPair::waitForLinks(int timeoutMs)
{
    // exists() follows the link, so a link to a pty not yet made does not count.
    for (int waited = 0; waited <= timeoutMs; waited += kPollMs) {
        if (exited())
            return false;
        if (QFileInfo::exists(m_linkA) && QFileInfo::exists(m_linkB))
            return true;
        QThread::msleep(kPollMs);
    }
    return false;
}

void PtyPair::stop()
{
    m_ok = false;
    if (m_pid <= 0)
        return;
    ::kill(m_pid, SIGTERM);
    for (int waited = 0; waited < kStopWaitMs; waited += kPollMs) {
        if (exited())
            return;
        QThread::msleep(kPollMs);
    }
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

}  // namespace lumbra::test
