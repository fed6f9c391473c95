// Everything lumbra-platform is told on its command line, checked, with a
// default for every setting.
#pragma once

#include "agentconfig.h"  // BrokerSettings

#include <QString>

namespace platform {

struct PlatformOptions {
    agent::BrokerSettings broker;  // host, port, credentials, TLS; client id empty: one per process
    QString share;                 // shared-subscription group; empty: every message to this instance
    QString db = "./lumbra-platform.db";
    QString httpHost = "127.0.0.1";
    int httpPort = 8080;
    QString configDir = "./platform-config";
    QString staticDir;  // empty: the console installed beside the program
    QString token;      // needed for writes; required when HTTP listens beyond loopback
    int retentionDays = 365;
    int offlineAfterS = 120;
    int maxPayload = 4 << 20;
    bool verbose = false;

    // "/+/DevSend/#", or "$share/<group>//+/DevSend/#" when shared.
    QByteArray subscription() const;
    bool httpLoopbackOnly() const;
};

enum class Parsed { Run, Help, Bad };

// Fills o from argv (files named by --password-file / --token-file are
// read here); Bad leaves the reason in *error.
Parsed parseOptions(int argc, char **argv, PlatformOptions *o, QString *error);
const char *usageText();

// "host:port" or "[v6]:port"; false for anything else or a port outside 1..65535.
bool splitHostPort(const QString &text, QString *host, int *port);

}  // namespace platform
