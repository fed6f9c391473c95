// Everything the agent is told: command-line options, the INI file and the
// environment, checked and with a default for every setting.
#pragma once

#include <QString>
#include <QStringList>

namespace agent {

struct BrokerSettings {
    QString host = "127.0.0.1";
    int port = 1883;
    QString clientId;  // empty: "lumbra-<serial>"
    QString username;
    QString password;
    int keepalive = 60;
    QString cafile, capath, certfile, keyfile;
    bool tlsInsecure = false;
    int reconnectMinS = 1;
    int reconnectMaxS = 10;
    bool tls() const { return !cafile.isEmpty() || !capath.isEmpty(); }
};

struct SupervisorSettings {
    QStringList command;  // empty: bridge only, nothing supervised
    int restartMinMs = 1000;
    int restartMaxMs = 60000;
    int stableS = 30;
    int stopTimeoutMs = 10000;
};

struct AgentConfig {
    QString url = "tcp://127.0.0.1:24401";
    int queueLimit = 1000;
    int queueMb = 16;  // the broker queue's bound in MiB
    bool verbose = false;
    QString configFile;
    BrokerSettings broker;
    SupervisorSettings supervisor;
};

enum class Options { Run, Help, Bad };

// Fills cfg from argv; Bad leaves a reason in *error.
Options parseOptions(int argc, char **argv, AgentConfig *cfg, QString *error);
const char *usageText();

// Applies cfg->configFile (if any) and LUMBRA_AGENT_URL. Bad values are
// logged and their defaults kept; false only when the file cannot be read.
bool loadSettings(AgentConfig *cfg);

}  // namespace agent
