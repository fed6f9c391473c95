#include "pgcluster.h"

#include "fdend.h"  // freeTcpPort
#include "process.h"

#include <QFile>
#include <QFileInfo>

#include <pwd.h>
#include <unistd.h>

namespace lumbra::test {
namespace {

const QString kBin = "/usr/lib/postgresql/15/bin/";
const char kOwner[] = "nobody";

}  // namespace

bool PgCluster::available()
{
    for (const char *p : {"initdb", "pg_ctl", "postgres", "psql", "createdb"})
        if (!QFileInfo(kBin + p).isExecutable())
            return false;
    return true;
}

// initdb refuses to run as root; the cluster then belongs to nobody.
bool PgCluster::run(const QString &program, const QStringList &args, bool asOwner)
{
    ChildProcess p;
    QString exe = kBin + program;
    QStringList argv = args;
    if (asOwner && geteuid() == 0) {
        argv = QStringList{"-u", kOwner, "--", exe} + args;
        exe = "/usr/sbin/runuser";
    }
    if (!p.start(exe, argv, m_dir.path()) || !p.waitForExit(60000)) {
        m_log += program + " did not finish\n" + p.output();
        return false;
    }
    m_log += p.output();
    return p.exitCode() == 0;
}

bool PgCluster::start()
{
    if (!m_dir.isValid())
        return false;
    if (geteuid() == 0) {
        const passwd *pw = getpwnam(kOwner);
        if (!pw || chown(m_dir.path().toLocal8Bit().constData(), pw->pw_uid, pw->pw_gid) != 0) {
            m_log = "cannot hand the temp dir to nobody\n";
            return false;
        }
    }
    m_port = freeTcpPort();
    const QString data = m_dir.path() + "/data";
    if (!run("initdb", {"-D", data, "-U", "lumbra", "--auth=trust", "-E", "UTF8", "--locale=C", "--no-sync"}, true))
        return false;
    return resume();
}

bool PgCluster::resume()
{
    const QString data = m_dir.path() + "/data";
    QString opts = QString("-k %1 -p %2 -c listen_addresses='' -c max_connections=50").arg(m_dir.path()).arg(m_port);
    if (!m_durable)
        opts += " -c fsync=off -c synchronous_commit=off -c full_page_writes=off";
    m_running = run("pg_ctl", {"-D", data, "-l", m_dir.path() + "/server.log", "-w", "-t", "60", "-o", opts, "start"},
                    true);
    if (!m_running) {
        QFile f(m_dir.path() + "/server.log");
        if (f.open(QIODevice::ReadOnly))
            m_log += f.readAll();
    }
    return m_running;
}

void PgCluster::stop()
{
    if (!m_running)
        return;
    // pg_ctl signals the server it started, by the pid in its data folder.
    run("pg_ctl", {"-D", m_dir.path() + "/data", "-m", "fast", "-w", "stop"}, true);
    m_running = false;
}

bool PgCluster::createDatabase(const QString &name)
{
    return run("createdb", {"-h", m_dir.path(), "-p", QString::number(m_port), "-U", "lumbra", name}, false);
}

QString PgCluster::url(const QString &database) const
{
    return QString("postgresql://lumbra@/%1?host=%2&port=%3").arg(database, m_dir.path()).arg(m_port);
}

}  // namespace lumbra::test
