#include "ftpserver.h"

#include <QRegularExpression>

namespace lumbra::test {
namespace {

// Listens on port 0 and prints the port it got, so that no other process
// can take a port between choosing and binding it.
const char kServerScript[] = R"(
import logging, os, sys, threading
from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler, ThrottledDTPHandler
from pyftpdlib.servers import FTPServer
root, user, pwd, rate = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
logging.basicConfig(level=logging.WARNING)
auth = DummyAuthorizer()
auth.add_user(user, pwd, root, perm="elr")
handler = FTPHandler
handler.authorizer = auth
handler.auth_failed_timeout = 0
if rate > 0:
    ThrottledDTPHandler.write_limit = rate
    handler.dtp_handler = ThrottledDTPHandler
server = FTPServer(("127.0.0.1", 0), handler)
# Our stdin closes when the test process ends, however it ends.
threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
print("listening %d up" % server.socket.getsockname()[1], flush=True)
server.serve_forever()
)";

}  // namespace

FtpServer::FtpServer(const QString &root, const QString &user, const QString &pwd, int bytesPerSecond)
{
    // Debian's interpreter: another python3 first on PATH may lack pyftpdlib.
    const QStringList args{"-c", kServerScript, root, user, pwd, QString::number(bytesPerSecond)};
    if (!m_proc.start("/usr/bin/python3", args, root))
        return;
    if (!m_proc.waitForOutput(" up", 5000))
        return;
    static const QRegularExpression ready("listening (\\d+) up");
    const QRegularExpressionMatch match = ready.match(m_proc.output());
    if (match.hasMatch())
        m_port = match.captured(1).toInt();
}

}  // namespace lumbra::test
