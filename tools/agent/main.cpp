// lumbra-agent: holds the cloud broker connection for the gateway, bridges
// its nanomsg socket to MQTT, and supervises the gateway process.
#include "agentconfig.h"
#include "agentlog.h"
#include "bridge.h"
#include "brokerlink.h"
#include "envelope.h"
#include "eventfd.h"
#include "gatewaylink.h"
#include "supervisor.h"

#include "generalFunc/boxpath.h"
#include "generalFunc/generalFunc.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/signalfd.h>

using namespace agent;

namespace {

// Signals arrive as reads on a descriptor, so the main thread only ever
// sleeps in poll. Blocked before any thread starts, so every thread
// inherits the block and none of them is interrupted.
FdHandle blockSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGCHLD, SIGTERM, SIGINT, SIGHUP})
        sigaddset(&set, sig);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // A broker that drops a TLS connection mid-write must not kill us.
    signal(SIGPIPE, SIG_IGN);
    return FdHandle(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Reads all pending signals; true once the agent was told to stop.
bool takeSignals(int fd, Supervisor &supervisor)
{
    bool stop = false;
    signalfd_siginfo info;
    while (read(fd, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGCHLD) {
            supervisor.childEvent();
        } else {
            AGENT_INFO("signal %u: stopping", info.ssi_signo);
            stop = true;
        }
    }
    return stop;
}

void runLoop(int signalFd, EventFd &restartWake, Supervisor &supervisor)
{
    pollfd fds[2] = {{signalFd, POLLIN, 0}, {restartWake.fd(), POLLIN, 0}};
    bool stopping = false;
    while (!(stopping && supervisor.finished())) {
        if (poll(fds, 2, supervisor.msUntilDue()) < 0 && errno != EINTR) {
            AGENT_ERROR("poll failed: %s", strerror(errno));
            return;
        }
        if (fds[0].revents && takeSignals(signalFd, supervisor) && !stopping) {
            stopping = true;
            supervisor.shutdown();
        }
        if (fds[1].revents) {
            restartWake.drain();
            if (!stopping)
                supervisor.requestRestart();
        }
        supervisor.onTimer();
    }
}

struct Identity {
    QString serial, version;
};

Identity readIdentity()
{
    const QString snFile = lumbra::boxPath("/usr/brenta/iot_conf/sn.conf");
    Identity id{unitTool::ReadFile(snFile, 1), unitTool::IotVersion()};
    if (id.serial.isEmpty())
        AGENT_WARN("no serial number in %s; topics carry an empty one", snFile.toLocal8Bit().constData());
    return id;
}

}  // namespace

int main(int argc, char **argv)
{
    // First of all, so that a SIGTERM during start-up still ends in order.
    FdHandle signalFd = blockSignals();
    AgentConfig cfg;
    QString error;
    switch (parseOptions(argc, argv, &cfg, &error)) {
    case Options::Help:
        fputs(usageText(), stdout);
        return 0;
    case Options::Bad:
        fprintf(stderr, "lumbra-agent: %s\n%s", error.toLocal8Bit().constData(), usageText());
        return 2;
    case Options::Run:
        break;
    }
    setVerbose(cfg.verbose);
    if (!loadSettings(&cfg)) {
        fprintf(stderr, "lumbra-agent: cannot read config %s\n", cfg.configFile.toLocal8Bit().constData());
        return 2;
    }
    EventFd restartWake;
    if (!signalFd.valid() || !restartWake.valid()) {
        AGENT_ERROR("cannot set up signal handling: %s", strerror(errno));
        return 1;
    }

    const Identity id = readIdentity();
    const QByteArray prefix = devicePrefix(id.serial, id.version);
    if (cfg.broker.clientId.isEmpty())
        cfg.broker.clientId = "lumbra-" + id.serial;
    AGENT_INFO("serial %s version %s, topics %s/DevRecv/#", id.serial.toUtf8().constData(),
               id.version.toUtf8().constData(), prefix.constData());

    Bridge bridge(prefix, [&restartWake] { restartWake.notify(); });
    GatewayLink gateway(size_t(cfg.queueLimit), [&bridge](const QByteArray &raw) { bridge.fromGateway(raw); });
    BrokerLink::Handlers fromBroker;
    fromBroker.state = [&bridge](bool up) { bridge.brokerState(up); };
    fromBroker.message = [&bridge](const QByteArray &topic, const QByteArray &payload) {
        bridge.fromBroker(topic, payload);
    };
    BrokerLink broker(cfg.broker, prefix + "/DevRecv/#", size_t(cfg.queueLimit), qint64(cfg.queueMb) << 20,
                      fromBroker);
    bridge.attach(&broker, &gateway);
    // The first word a gateway hears from this agent: one that outlived the
    // previous agent learns that its cloud link starts over, and takes it as
    // down until this agent's broker connects.
    bridge.brokerState(false);
    const QByteArray url = cfg.url.toUtf8();
    if (!gateway.open(url) || !broker.start())
        return 1;

    Supervisor supervisor(cfg.supervisor, url);
    supervisor.start();
    runLoop(signalFd.get(), restartWake, supervisor);
    broker.stop();
    gateway.stop();
    AGENT_INFO("stopped");
    return 0;
}
