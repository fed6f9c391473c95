// lumbra-platform: the platform side of the gateways' cloud protocol. Takes
// their uploads from an MQTT broker, stores them exactly once (SQLite or
// PostgreSQL), acknowledges after commit, answers configuration requests
// from a folder, and serves an HTTP API, event stream and console.
#include "brokerlink.h"
#include "commands.h"
#include "configservice.h"
#include "eventhub.h"
#include "httpapi.h"
#include "ingest.h"
#include "jsonout.h"
#include "options.h"
#include "platformlog.h"
#include "schema.h"
#include "storereader.h"
#include "writer.h"

#include <QDir>
#include <QFileInfo>
#include <QHostInfo>

#include <csignal>
#include <cstdio>
#include <unistd.h>

using namespace platform;

namespace {

sigset_t stopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&set, sig);
    return set;
}

// The console beside the program: in the build tree next to the binary, once
// installed under share/.
QString defaultStaticDir()
{
    const QString exe = QFileInfo("/proc/self/exe").canonicalFilePath();
    const QString dir = QFileInfo(exe).absolutePath();
    for (const QString &candidate : {dir + "/www", dir + "/../share/lumbra/platform/www"})
        if (QFileInfo(candidate).isDir())
            return QDir(candidate).absolutePath();
    return QString();
}

std::unique_ptr<DbConn> openStore(const QString &target)
{
    QString why;
    std::unique_ptr<DbConn> db = openDb(target, &why);
    if (db && !createSchema(*db, &why))
        db.reset();
    if (!db)
        PLOG_ERROR("cannot use the database %s: %s", target.toUtf8().constData(), why.toUtf8().constData());
    return db;
}

QByteArray statusJson(const PlatformOptions &o, const WriterStats &w, const Ingest &in, const IngestQueue &q,
                      const agent::BrokerLink &broker, const EventHub &hub)
{
    QByteArray j = "{";
    jsonField(j, "database", isPostgresUrl(o.db) ? "postgresql" : "sqlite");
    jsonBool(j, "database_up", w.databaseUp);
    jsonBool(j, "broker_connected", const_cast<agent::BrokerLink &>(broker).connected());
    jsonField(j, "subscription", QString::fromUtf8(o.subscription()));
    jsonField(j, "messages", qint64(w.messages));
    jsonField(j, "stored", qint64(w.stored));
    jsonField(j, "batches", qint64(w.batches));
    jsonField(j, "history_stored", qint64(w.historyStored));
    jsonField(j, "history_duplicates", qint64(w.historyDuplicates));
    jsonField(j, "alarms_stored", qint64(w.alarmsStored));
    jsonField(j, "alarm_duplicates", qint64(w.alarmDuplicates));
    jsonField(j, "dropped", qint64(w.dropped));
    jsonField(j, "queued", qint64(q.size()));
    jsonField(j, "refused", qint64(in.faults(Ingest::Oversized) + in.faults(Ingest::BadTopic) +
                                   in.faults(Ingest::UnknownTopic) + in.faults(Ingest::BadCompression) +
                                   in.faults(Ingest::Malformed)));
    jsonField(j, "event_streams", qint64(hub.subscribers()));
    return j + "}";
}

}  // namespace

int main(int argc, char **argv)
{
    // Blocked before any thread starts, so that only sigwait below sees them.
    const sigset_t stopSet = stopSignals();
    pthread_sigmask(SIG_BLOCK, &stopSet, nullptr);
    signal(SIGPIPE, SIG_IGN);
    agent::setLogName("platform");

    PlatformOptions o;
    QString error;
    switch (parseOptions(argc, argv, &o, &error)) {
    case Parsed::Help:
        fputs(usageText(), stdout);
        return 0;
    case Parsed::Bad:
        fprintf(stderr, "lumbra-platform: %s\n%s", error.toLocal8Bit().constData(), usageText());
        return 2;
    case Parsed::Run:
        break;
    }
    agent::setVerbose(o.verbose);
    if (o.broker.clientId.isEmpty())
        o.broker.clientId = QString("lumbra-platform-%1-%2").arg(QHostInfo::localHostName()).arg(getpid());
    if (o.staticDir.isEmpty())
        o.staticDir = defaultStaticDir();

    std::unique_ptr<DbConn> writeDb = openStore(o.db);
    std::unique_ptr<DbConn> readDb = writeDb ? openStore(o.db) : nullptr;
    if (!readDb)
        return 1;
    PLOG_INFO("storing in %s, configuration from %s, retention %d days", isPostgresUrl(o.db) ? "PostgreSQL" : "SQLite",
              QDir(o.configDir).absolutePath().toUtf8().constData(), o.retentionDays);

    ConfigService config(o.configDir);
    IngestQueue queue(50000, qint64(256) << 20);
    EventHub hub;
    StoreReader reader(std::move(readDb), o.offlineAfterS);
    agent::BrokerLink *brokerPtr = nullptr;
    const auto publish = [&brokerPtr](const Outgoing &m) { brokerPtr->publish(m.topic, m.payload, 1); };
    Commands commands(reader, publish);
    Writer writer(
        std::move(writeDb), queue,
        [&commands](const QString &sn, int code, const QString &v) { return commands.matchWrite(sn, code, v); },
        publish, [&hub](const Change &c) { hub.publish(c); }, o.retentionDays);
    Ingest ingest(queue, config, publish, o.maxPayload);

    agent::BrokerLink::Handlers handlers;
    handlers.message = [&ingest](const QByteArray &topic, const QByteArray &payload) {
        ingest.onMessage(topic, payload);
    };
    agent::BrokerLink broker(o.broker, o.subscription(), 10000, qint64(64) << 20, handlers);
    brokerPtr = &broker;

    HttpApi http({o.httpHost, o.httpPort, o.staticDir, o.token}, reader, commands, config, hub,
                 [&] { return statusJson(o, writer.stats(), ingest, queue, broker, hub); });
    if (!http.start(&error)) {
        PLOG_ERROR("%s", error.toUtf8().constData());
        return 1;
    }
    writer.start();
    if (!broker.start())
        return 1;
    PLOG_INFO("consuming %s from %s:%d as %s", o.subscription().constData(), o.broker.host.toUtf8().constData(),
              o.broker.port, o.broker.clientId.toUtf8().constData());

    int sig = 0;
    sigwait(&stopSet, &sig);
    PLOG_INFO("signal %d: stopping", sig);
    http.stop();
    broker.stop();
    writer.stop();
    PLOG_INFO("stopped");
    return 0;
}
