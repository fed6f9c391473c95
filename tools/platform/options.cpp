#include "options.h"

#include <QFile>
#include <QHostAddress>

#include <functional>
#include <map>

namespace platform {

const char *usageText()
{
    return "usage: lumbra-platform [options]\n"
           "  --broker HOST:PORT      MQTT broker of the gateways (127.0.0.1:1883)\n"
           "  --user NAME             broker user name\n"
           "  --password TEXT         broker password (--password-file FILE reads it from a file)\n"
           "  --cafile FILE           CA certificate: connect with TLS\n"
           "  --client-id ID          MQTT client id (default: lumbra-platform-<host>-<pid>)\n"
           "  --share GROUP           consume through the shared subscription $share/GROUP/...\n"
           "  --db PATH|URL           SQLite file (./lumbra-platform.db) or postgresql://... URL\n"
           "  --http HOST:PORT        HTTP API and console (127.0.0.1:8080)\n"
           "  --token TEXT            token for writes (--token-file FILE); required beyond loopback\n"
           "  --static DIR            folder the console is served from\n"
           "  --config DIR            one folder per gateway serial number (./platform-config)\n"
           "  --retention-days N      prune history and alarms older than N days; 0 keeps all (365)\n"
           "  --offline-after S       a gateway silent this long is offline (120)\n"
           "  --max-payload BYTES     larger messages, inflated or not, are dropped (4194304)\n"
           "  -v, --verbose           log every message taken in\n"
           "  -h, --help              show this help\n";
}

bool splitHostPort(const QString &text, QString *host, int *port)
{
    const int colon = text.lastIndexOf(':');
    if (colon <= 0)
        return false;
    QString h = text.left(colon);
    if (h.startsWith('[') && h.endsWith(']'))
        h = h.mid(1, h.size() - 2);
    else if (h.contains(':'))
        return false;  // a bare IPv6 address is ambiguous
    bool ok = false;
    const int p = text.mid(colon + 1).toInt(&ok);
    if (!ok || p < 1 || p > 65535 || h.isEmpty())
        return false;
    *host = h;
    *port = p;
    return true;
}

QByteArray PlatformOptions::subscription() const
{
    const QByteArray filter = "/+/DevSend/#";
    return share.isEmpty() ? filter : "$share/" + share.toUtf8() + "/" + filter;
}

bool PlatformOptions::httpLoopbackOnly() const
{
    if (httpHost == "localhost")
        return true;
    const QHostAddress a(httpHost);
    return !a.isNull() && a.isLoopback();
}

namespace {

bool readSecret(const QString &path, QString *out, QString *error)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        *error = "cannot read " + path;
        return false;
    }
    *out = QString::fromUtf8(f.readLine()).trimmed();
    return true;
}

bool number(const QString &text, int lo, int hi, int *out)
{
    bool ok = false;
    const int n = text.toInt(&ok);
    if (!ok || n < lo || n > hi)
        return false;
    *out = n;
    return true;
}

using Setter = std::function<bool(const QString &value, QString *error)>;

std::map<QString, Setter> setters(PlatformOptions *o)
{
    auto text = [](QString *target) {
        return [target](const QString &v, QString *) {
            *target = v;
            return true;
        };
    };
    auto integer = [](int *target, int lo, int hi) {
        return [=](const QString &v, QString *error) {
            if (number(v, lo, hi, target))
                return true;
            *error = QString("expects a number from %1 to %2, not '%3'").arg(lo).arg(hi).arg(v);
            return false;
        };
    };
    auto secret = [](QString *target) {
        return [target](const QString &v, QString *error) { return readSecret(v, target, error); };
    };
    auto address = [](QString *host, int *port) {
        return [=](const QString &v, QString *error) {
            if (splitHostPort(v, host, port))
                return true;
            *error = "expects HOST:PORT, not '" + v + "'";
            return false;
        };
    };
    agent::BrokerSettings &b = o->broker;
    return {
        {"--broker", address(&b.host, &b.port)},
        {"--user", text(&b.username)},
        {"--password", text(&b.password)},
        {"--password-file", secret(&b.password)},
        {"--cafile", text(&b.cafile)},
        {"--client-id", text(&b.clientId)},
        {"--share", text(&o->share)},
        {"--db", text(&o->db)},
        {"--http", address(&o->httpHost, &o->httpPort)},
        {"--token", text(&o->token)},
        {"--token-file", secret(&o->token)},
        {"--static", text(&o->staticDir)},
        {"--config", text(&o->configDir)},
        {"--retention-days", integer(&o->retentionDays, 0, 100000)},
        {"--offline-after", integer(&o->offlineAfterS, 1, 86400 * 365)},
        {"--max-payload", integer(&o->maxPayload, 1024, 256 << 20)},
    };
}

bool validShareName(const QString &name)
{
    for (const QChar c : name)
        if (c == '/' || c == '+' || c == '#')
            return false;
    return true;
}

}  // namespace

Parsed parseOptions(int argc, char **argv, PlatformOptions *o, QString *error)
{
    const std::map<QString, Setter> table = setters(o);
    for (int i = 1; i < argc; ++i) {
        QString arg = QString::fromLocal8Bit(argv[i]);
        if (arg == "-h" || arg == "--help")
            return Parsed::Help;
        if (arg == "-v" || arg == "--verbose") {
            o->verbose = true;
            continue;
        }
        QString value;
        bool inline_ = false;
        const int eq = arg.indexOf('=');
        if (arg.startsWith("--") && eq > 0) {
            value = arg.mid(eq + 1);
            arg = arg.left(eq);
            inline_ = true;
        }
        const auto it = table.find(arg);
        if (it == table.end()) {
            *error = "unknown option " + arg;
            return Parsed::Bad;
        }
        if (!inline_) {
            if (++i >= argc) {
                *error = arg + " needs a value";
                return Parsed::Bad;
            }
            value = QString::fromLocal8Bit(argv[i]);
        }
        QString why;
        if (!it->second(value, &why)) {
            *error = arg + ": " + why;
            return Parsed::Bad;
        }
    }
    if (!validShareName(o->share)) {
        *error = "--share: a group name holds no '/', '+' or '#'";
        return Parsed::Bad;
    }
    if (!o->httpLoopbackOnly() && o->token.isEmpty()) {
        *error = "--http " + o->httpHost + " is reachable beyond this machine: give --token or --token-file";
        return Parsed::Bad;
    }
    return Parsed::Run;
}

}  // namespace platform
