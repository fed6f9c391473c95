#include "agentconfig.h"

#include "generalFunc/secrets.h"

#include "agentlog.h"
#include "inifile.h"

#include <QSet>

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace agent {

const char *usageText()
{
    return "usage: lumbra-agent [-c FILE] [-v] [--] [GATEWAY [ARGS...]]\n"
           "  -c, --config FILE  read settings from this INI file\n"
           "  -v, --verbose      log every message passed either way\n"
           "  -h, --help         show this help\n"
           "GATEWAY and its ARGS: the gateway command line to start and supervise;\n"
           "without one the agent only bridges.\n";
}

Options parseOptions(int argc, char **argv, AgentConfig *cfg, QString *error)
{
    int i = 1;
    for (; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg == "-h" || arg == "--help")
            return Options::Help;
        if (arg == "-v" || arg == "--verbose") {
            cfg->verbose = true;
        } else if (arg == "-c" || arg == "--config") {
            if (++i >= argc) {
                *error = arg + " needs a file";
                return Options::Bad;
            }
            cfg->configFile = QString::fromLocal8Bit(argv[i]);
        } else if (arg.startsWith("--config=")) {
            cfg->configFile = arg.mid(9);
        } else if (arg.startsWith('-')) {
            *error = "unknown option " + arg;
            return Options::Bad;
        } else {
            break;  // the gateway's command line starts here
        }
    }
    for (; i < argc; ++i)
        cfg->supervisor.command << QString::fromLocal8Bit(argv[i]);
    return Options::Run;
}

namespace {

// One INI key and where its value goes; exactly one target is set.
struct KeySpec {
    const char *section;
    const char *key;
    QString *text = nullptr;
    int *number = nullptr;
    bool *flag = nullptr;
    int lo = 0, hi = 0;
};

std::vector<KeySpec> keySpecs(AgentConfig &c)
{
    BrokerSettings &b = c.broker;
    SupervisorSettings &s = c.supervisor;
    auto text = [](const char *sec, const char *key, QString *t) { KeySpec k{sec, key}; k.text = t; return k; };
    auto number = [](const char *sec, const char *key, int *n, int lo, int hi) {
        KeySpec k{sec, key};
        k.number = n;
        k.lo = lo;
        k.hi = hi;
        return k;
    };
    KeySpec insecure{"broker", "tls_insecure"};
    insecure.flag = &b.tlsInsecure;
    return {text("agent", "url", &c.url), number("agent", "queue_limit", &c.queueLimit, 1, 1000000),
            number("agent", "queue_mb", &c.queueMb, 1, 1024),
            text("broker", "host", &b.host), number("broker", "port", &b.port, 1, 65535),
            text("broker", "client_id", &b.clientId), text("broker", "username", &b.username),
            text("broker", "password", &b.password), number("broker", "keepalive", &b.keepalive, 5, 65535),
            text("broker", "cafile", &b.cafile), text("broker", "capath", &b.capath),
            text("broker", "certfile", &b.certfile), text("broker", "keyfile", &b.keyfile), insecure,
            number("broker", "reconnect_min_s", &b.reconnectMinS, 1, 3600),
            number("broker", "reconnect_max_s", &b.reconnectMaxS, 1, 3600),
            number("supervisor", "restart_min_ms", &s.restartMinMs, 10, 3600000),
            number("supervisor", "restart_max_ms", &s.restartMaxMs, 10, 3600000),
            number("supervisor", "stable_s", &s.stableS, 0, 86400),
            number("supervisor", "stop_timeout_ms", &s.stopTimeoutMs, 100, 600000)};
}

bool parseFlag(const QString &text, bool *out)
{
    static const QSet<QString> yes{"1", "true", "yes", "on"}, no{"0", "false", "no", "off"};
    const QString t = text.toLower();
    if (!yes.contains(t) && !no.contains(t))
        return false;
    *out = yes.contains(t);
    return true;
}

// Stores value into spec's target; false (target untouched) when it is bad.
bool apply(const KeySpec &spec, const QString &value, QString *why)
{
    if (spec.text) {
        *spec.text = value;
        return true;
    }
    if (spec.flag) {
        *why = "not true or false";
        return parseFlag(value, spec.flag);
    }
    bool ok = false;
    const int n = value.toInt(&ok);
    if (!ok || n < spec.lo || n > spec.hi) {
        *why = QString("not a number in %1..%2").arg(spec.lo).arg(spec.hi);
        return false;
    }
    *spec.number = n;
    return true;
}

QString current(const KeySpec &spec)
{
    if (spec.number)
        return QString::number(*spec.number);
    if (spec.flag)
        return *spec.flag ? "true" : "false";
    return *spec.text;
}

void applyIni(const IniFile &ini, AgentConfig *cfg)
{
    const QByteArray file = cfg->configFile.toLocal8Bit();
    for (const QString &p : ini.problems()) {
        // A mistyped password line would otherwise be echoed whole.
        const QString shown = lumbra::isSecretKey(p) ? p.section(':', 0, 0) + ": (not shown, it may hold a secret)" : p;
        AGENT_WARN("config %s: %s ignored, not a key = value line", file.constData(), shown.toUtf8().constData());
    }
    const std::vector<KeySpec> specs = keySpecs(*cfg);
    for (auto it = ini.values().cbegin(); it != ini.values().cend(); ++it) {
        const QByteArray name = (it.key().first + "/" + it.key().second).toUtf8();
        auto spec = std::find_if(specs.begin(), specs.end(), [&](const KeySpec &s) {
            return it.key().first == s.section && it.key().second == s.key;
        });
        QString why;
        if (spec == specs.end())
            AGENT_WARN("config %s: unknown key %s ignored", file.constData(), name.constData());
        else if (!apply(*spec, it.value(), &why))
            AGENT_WARN("config %s: %s '%s' is %s, using %s", file.constData(), name.constData(),
                       it.value().toUtf8().constData(), why.toUtf8().constData(), current(*spec).toUtf8().constData());
    }
}

// Pairs of bounds that only make sense one way round.
void checkBounds(AgentConfig *cfg)
{
    SupervisorSettings &s = cfg->supervisor;
    if (s.restartMaxMs < s.restartMinMs) {
        AGENT_WARN("config: supervisor/restart_max_ms %d is below restart_min_ms, using %d", s.restartMaxMs,
                   s.restartMinMs);
        s.restartMaxMs = s.restartMinMs;
    }
    BrokerSettings &b = cfg->broker;
    if (b.reconnectMaxS < b.reconnectMinS) {
        AGENT_WARN("config: broker/reconnect_max_s %d is below reconnect_min_s, using %d", b.reconnectMaxS,
                   b.reconnectMinS);
        b.reconnectMaxS = b.reconnectMinS;
    }
    if (b.certfile.isEmpty() != b.keyfile.isEmpty()) {
        AGENT_WARN("config: broker/certfile and keyfile go together; the client certificate is not used");
        b.certfile.clear();
        b.keyfile.clear();
    }
}

}  // namespace

bool loadSettings(AgentConfig *cfg)
{
    if (!cfg->configFile.isEmpty()) {
        IniFile ini;
        QString error;
        if (!ini.load(cfg->configFile, &error)) {
            AGENT_ERROR("cannot read config %s: %s", cfg->configFile.toLocal8Bit().constData(),
                        error.toLocal8Bit().constData());
            return false;
        }
        applyIni(ini, cfg);
    }
    if (const char *url = std::getenv("LUMBRA_AGENT_URL"); url && *url)
        cfg->url = QString::fromLocal8Bit(url);
    checkBounds(cfg);
    return true;
}

}  // namespace agent
