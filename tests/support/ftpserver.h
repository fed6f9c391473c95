// A real FTP server (pyftpdlib) on a free loopback port, serving one
// directory to one account, for the software-download tests.
#pragma once

#include "process.h"

#include <QString>

namespace lumbra::test {

class FtpServer {
public:
    // bytesPerSecond > 0 slows downloads down, to keep a transfer running.
    FtpServer(const QString &root, const QString &user, const QString &pwd, int bytesPerSecond = 0);
    // False when the server did not come up within 5 s.
    bool ok() const { return m_port > 0; }
    int port() const { return m_port; }
    QString output() { return m_proc.output(); }

private:
    ChildProcess m_proc;  // stopped by pid when the server goes
    int m_port = -1;
};

}  // namespace lumbra::test
