// Starts a program of ours in a working directory and watches its output.
// Only the process it started is ever stopped, by its pid.
#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <memory>

namespace lumbra::test {

class AgentPeer;

// Absolute path of the gateway binary of this build.
QString gatewayBinary();

class ChildProcess {
public:
    ChildProcess();
    ~ChildProcess();  // kills the child if it still runs

    void setEnv(const QString &name, const QString &value);
    bool start(const QString &program, const QStringList &args, const QString &workDir);
    // Waits until the merged stdout/stderr holds text; false on timeout or exit.
    bool waitForOutput(const QString &text, int timeoutMs);
    bool waitForExit(int timeoutMs);
    QString output();
    int exitCode() const { return m_proc.exitCode(); }
    bool running() const { return m_proc.state() != QProcess::NotRunning; }
    qint64 pid() const { return m_proc.processId(); }
    void stop();
    // SIGKILL, as a power cut or the kernel would end it; waits for the end.
    void kill();

private:
    QProcess m_proc;
    QProcessEnvironment m_env;
    QString m_output;
    std::unique_ptr<AgentPeer> m_agent;
};

}  // namespace lumbra::test
