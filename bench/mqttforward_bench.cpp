// Forwarding to a local mosquitto: how fast one client publishes, and how
// fast its offline cache empties once the broker is back, with the bytes
// that costs the storage.
//   bench_mqtt_forward <messages> <cached rows>
#include "MqttCliManager/MqttClient.h"
#include "fdend.h"
#include "mosquittobroker.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QFile>

#include <cstdio>
#include <cstdlib>

using namespace lumbra::test;

namespace {

MqttClient::Settings settings(int port, const QString &cacheDir)
{
    MqttClient::Settings s;
    s.configId = 1;
    s.clientId = "bench";
    s.host = "127.0.0.1";
    s.port = port;
    s.useOfflineCache = true;
    s.cacheNum = 1000000;
    s.cacheDir = cacheDir;
    return s;
}

MqttClient::topicData_t tick()
{
    MqttClient::topicData_t t;
    t.funcTypeName = "RTDSend";
    t.topic = "bench/tick";
    return t;
}

// Bytes this process caused to be written to storage so far.
qint64 writeBytes()
{
    QFile io("/proc/self/io");
    if (!io.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : io.readAll().split('\n'))
        if (line.startsWith("write_bytes:"))
            return line.mid(12).trimmed().toLongLong();
    return -1;
}

const QByteArray kPayload = R"({"sn":"A1B2C3","data":[{"code":1,"value":"22.5"},{"code":2,"value":"1"}]})";

void publishRate(MosquittoBroker &broker, const QString &cacheDir, int messages)
{
    MqttProbe user(broker.port(), "bench/#");
    MqttClient client(settings(broker.port(), cacheDir));
    client.init();
    if (!user.connected() || !eventually([&] { return client.isConnected(); }, 10000)) {
        std::printf("no connection to the broker\n");
        return;
    }
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < messages; ++i)
        client.sendData(tick(), kPayload);
    const double sent = timer.nsecsElapsed() / 1e9;
    const int got = user.take("bench/tick", messages, 30000).size();
    const double all = timer.nsecsElapsed() / 1e9;
    std::printf("publish: %d messages of %d bytes handed over in %.3f s (%.0f msg/s), %d received by a subscriber "
                "after %.3f s (%.0f msg/s)\n",
                messages, int(kPayload.size()), sent, messages / sent, got, all, got / all);
    client.destroyClient();
}

// The cache as the client's own thread drains it once the broker is back:
// from the connection to the last row deleted and the file compacted.
void drainRate(MosquittoBroker &broker, const QString &cacheDir, int rows)
{
    {
        // Nobody listens on this port: every message goes to the cache.
        MqttClient offline(settings(freeTcpPort(), cacheDir));
        offline.init();
        for (int i = 0; i < rows; ++i)
            offline.sendData(tick(), kPayload);
        offline.destroyClient();
    }
    MqttProbe user(broker.port(), "bench/#");
    MqttClient client(settings(broker.port(), cacheDir));
    client.init();
    client.start();
    if (!user.connected() || !eventually([&] { return client.isConnected(); }, 10000))
        return;
    const unsigned cached = client.cachedRows();
    const qint64 written = writeBytes();
    QElapsedTimer timer;
    timer.start();
    eventually([&] { return client.cachedRows() == 0; }, 600000);
    const double s = timer.nsecsElapsed() / 1e9;
    const qint64 bytes = writeBytes() - written;
    const int got = user.take("bench/tick", rows, 10000).size();
    std::printf("drain: %u cached rows published at QoS 1, acknowledged and deleted by the client's thread in %.3f s: "
                "%.0f rows/s, %.1f MB written (%.0f bytes a row); %d received by a subscriber\n",
                cached, s, cached / s, bytes / 1e6, double(bytes) / cached, got);
    client.destroyClient();
}

}  // namespace

int main(int argc, char **argv)
{
    const int messages = argc > 1 ? std::atoi(argv[1]) : 10000;
    const int rows = argc > 2 ? std::atoi(argv[2]) : 10000;
    LogCapture log;
    WorkDir work;
    MosquittoBroker broker;
    if (!broker.start())
        return 1;
    publishRate(broker, work.file("pub"), messages);
    drainRate(broker, work.file("drain"), rows);
    broker.stop();
    if (getenv("BENCH_LOG"))
        std::fprintf(stderr, "%s\n", log.text().toLocal8Bit().constData());
    return 0;
}
