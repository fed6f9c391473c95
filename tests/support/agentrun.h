// lumbra-agent as a test starts it: an INI of its own pointing at a test
// broker, a free loopback URL, a box root with a serial number, its output
// (and that of the gateway it supervises) watched.
#pragma once

#include "process.h"

#include <QList>
#include <QTemporaryDir>

#include <functional>

namespace lumbra::test {

class AgentRun {
public:
    static constexpr const char *kSerial = "LUMBRA-AGENT-1";

    // binary: the built lumbra-agent; brokerPort: where [broker] points.
    AgentRun(const QString &binary, int brokerPort);
    QString url() const { return m_url; }
    // "/<serial>_<version>", the start of every device topic.
    QString prefix() const;
    // More INI text, appended to the defaults (later keys win).
    void addConfig(const QString &ini) { m_extra += ini + "\n"; }

    // Starts the agent in workDir (default: a temp dir), -v on unless
    // turned off, with the gateway command, if any, after the options.
    bool start(const QStringList &gatewayCommand = {}, const QString &workDir = QString());
    // A child whose pipe nobody reads blocks once it is full: runs that
    // only measure turn -v off.
    void setVerbose(bool on) { m_verbose = on; }
    ChildProcess &process() { return m_proc; }
    QString output() { return m_proc.output(); }
    // Reads the agent's output until cond holds or timeoutMs passed.
    bool waitUntil(const std::function<bool()> &cond, int timeoutMs);
    int count(const QString &text) { return output().count(text); }
    // Pids from "gateway started, pid N" lines, in order.
    QList<qint64> gatewayPids();
    // The delays of "restarting in T s" lines, in seconds.
    QList<double> restartDelays();
    // User plus system CPU time the agent used so far.
    double cpuSeconds();

private:
    QTemporaryDir m_dir;
    QString m_url;
    QString m_config;
    QString m_extra;
    QString m_binary;
    bool m_verbose = true;
    ChildProcess m_proc;
};

}  // namespace lumbra::test
