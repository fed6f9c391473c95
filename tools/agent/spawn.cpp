#include "spawn.h"

#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace agent {
namespace {

QByteArray resolveProgram(const QString &name)
{
    if (name.contains('/'))
        return name.toLocal8Bit();
    const char *path = std::getenv("PATH");
    for (const QString &dir : QString::fromLocal8Bit(path && *path ? path : "/usr/bin:/bin").split(':')) {
        const QFileInfo candidate((dir.isEmpty() ? QString(".") : dir) + "/" + name);
        if (candidate.isFile() && candidate.isExecutable())
            return candidate.filePath().toLocal8Bit();
    }
    return QByteArray();
}

// Keeps what the pointers in a char*[] point at alive.
struct CStrings {
    std::vector<QByteArray> storage;
    std::vector<char *> pointers;
    void add(const QByteArray &s) { storage.push_back(s); }
    char **array()
    {
        pointers.clear();
        for (QByteArray &s : storage)
            pointers.push_back(s.data());
        pointers.push_back(nullptr);
        return pointers.data();
    }
};

// Runs in the child between fork and exec: async-signal-safe calls only.
void prepareChild(pid_t parent)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &dfl, nullptr);
    // A gateway left behind by a killed agent would block the next one: it
    // refuses to run twice.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent)
        _exit(127);
    // The broker connection and the agent's socket are none of its business.
#if defined(SYS_close_range)
    if (syscall(SYS_close_range, 3u, ~0u, 4u /* CLOSE_RANGE_CLOEXEC */) == 0)
        return;
#endif
    rlimit lim{};
    const int top = getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < 65536 ? int(lim.rlim_cur) : 65536;
    for (int fd = 3; fd < top; ++fd)
        fcntl(fd, F_SETFD, FD_CLOEXEC);
}

}  // namespace

pid_t spawnGateway(const QStringList &command, const QByteArray &agentUrl, QByteArray *error)
{
    const QByteArray program = resolveProgram(command.value(0));
    if (program.isEmpty()) {
        *error = "not found in PATH";
        return -1;
    }
    CStrings argv, envp;
    for (const QString &arg : command)
        argv.add(arg.toLocal8Bit());
    for (char **e = environ; *e; ++e)
        if (strncmp(*e, "LUMBRA_AGENT_URL=", 17) != 0)
            envp.add(*e);
    envp.add("LUMBRA_AGENT_URL=" + agentUrl);
    char **args = argv.array(), **env = envp.array();

    // The child reports a failed exec through this pipe; a successful exec
    // closes it.
    int report[2];
    if (pipe2(report, O_CLOEXEC) < 0) {
        *error = strerror(errno);
        return -1;
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        close(report[0]);
        prepareChild(parent);
        execve(program.constData(), args, env);
        int err = errno;
        ssize_t ignored = write(report[1], &err, sizeof err);
        (void)ignored;
        _exit(127);
    }
    close(report[1]);
    if (pid < 0) {
        *error = strerror(errno);
        close(report[0]);
        return -1;
    }
    int childErr = 0;
    ssize_t n;
    while ((n = read(report[0], &childErr, sizeof childErr)) < 0 && errno == EINTR) {
    }
    close(report[0]);
    if (n != sizeof childErr)
        return pid;
    waitpid(pid, nullptr, 0);
    *error = strerror(childErr);
    return -1;
}

QByteArray describeExit(int status)
{
    if (WIFSIGNALED(status))
        return "killed by signal " + QByteArray::number(WTERMSIG(status));
    return "exited with status " + QByteArray::number(WEXITSTATUS(status));
}

}  // namespace agent
