// A throw-away PostgreSQL 15 cluster in a temp dir, for tests and benchmarks:
// initdb and pg_ctl from Debian's postgresql-15, run as an unprivileged user
// when the tests run as root (initdb refuses root), listening only on a unix
// socket in the temp dir. The superuser is "lumbra", trusted.
#pragma once

#include <QString>
#include <QTemporaryDir>

namespace lumbra::test {

class PgCluster {
public:
    // durable false turns fsync off: tests do not survive power cuts anyway.
    explicit PgCluster(bool durable = false) : m_durable(durable) {}
    ~PgCluster() { stop(); }
    PgCluster(const PgCluster &) = delete;
    PgCluster &operator=(const PgCluster &) = delete;

    // The server programs are installed (tests skip without them).
    static bool available();
    // initdb and start; false with the reason in log().
    bool start();
    void stop();
    // Starts the stopped cluster again, data kept (a server that came back).
    bool resume();
    bool running() const { return m_running; }
    QString log() const { return m_log; }

    bool createDatabase(const QString &name);
    // libpq URL of a database on this cluster.
    QString url(const QString &database) const;

private:
    bool run(const QString &program, const QStringList &args, bool asOwner);

    bool m_durable;
    QTemporaryDir m_dir;
    int m_port = 0;
    bool m_running = false;
    QString m_log;
};

}  // namespace lumbra::test
