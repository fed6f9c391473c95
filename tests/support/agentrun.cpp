#include "agentrun.h"

#include "fdend.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QRegularExpression>

#include <unistd.h>

namespace lumbra::test {

AgentRun::AgentRun(const QString &binary, int brokerPort)
    : m_url(QString("tcp://127.0.0.1:%1").arg(freeTcpPort())),
      m_config(QString("[agent]\nurl=%1\n[broker]\nhost=127.0.0.1\nport=%2\n"
                       "[supervisor]\nrestart_min_ms=200\nstop_timeout_ms=2000\n")
                   .arg(m_url)
                   .arg(brokerPort)),
      m_binary(binary)
{
    writeFile(m_dir.path() + "/root/usr/brenta/iot_conf/sn.conf", kSerial);
    m_proc.setEnv("LUMBRA_SYSROOT", m_dir.path() + "/root");
}

QString AgentRun::prefix() const
{
    return QString("/%1_3.0.0").arg(kSerial);
}

bool AgentRun::start(const QStringList &gatewayCommand, const QString &workDir)
{
    const QString ini = m_dir.path() + "/agent.ini";
    writeFile(ini, (m_config + m_extra).toUtf8());
    const QStringList options = m_verbose ? QStringList{"-v", "-c", ini} : QStringList{"-c", ini};
    return m_proc.start(m_binary, options + gatewayCommand,
                        workDir.isEmpty() ? m_dir.path() : workDir);
}

bool AgentRun::waitUntil(const std::function<bool()> &cond, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    while (!cond()) {
        if (t.elapsed() > timeoutMs)
            return false;
        m_proc.waitForOutput("\x01", 20);  // never printed: only reads
    }
    return true;
}

QList<qint64> AgentRun::gatewayPids()
{
    QList<qint64> pids;
    QRegularExpressionMatchIterator it = QRegularExpression("gateway started, pid (\\d+)").globalMatch(output());
    while (it.hasNext())
        pids << it.next().captured(1).toLongLong();
    return pids;
}

QList<double> AgentRun::restartDelays()
{
    QList<double> delays;
    QRegularExpressionMatchIterator it = QRegularExpression("restarting in ([0-9.]+) s").globalMatch(output());
    while (it.hasNext())
        delays << it.next().captured(1).toDouble();
    return delays;
}

double AgentRun::cpuSeconds()
{
    // Fields 14 and 15 of /proc/PID/stat, counted after the ")" that ends
    // the command name.
    const QByteArray stat = readFile(QString("/proc/%1/stat").arg(m_proc.pid()));
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return -1;
    return (fields[11].toDouble() + fields[12].toDouble()) / sysconf(_SC_CLK_TCK);
}

}  // namespace lumbra::test
