#include "platformrun.h"

#include "fdend.h"  // freeTcpPort
#include "testsupport.h"

#include <QJsonObject>

#include <httplib.h>

namespace lumbra::test {

HttpReply httpGet(int port, const QString &path)
{
    httplib::Client c("127.0.0.1", port);
    c.set_read_timeout(30, 0);
    const httplib::Result r = c.Get(path.toStdString().c_str());
    if (!r)
        return {};
    return {r->status, QByteArray::fromStdString(r->body)};
}

HttpReply httpPost(int port, const QString &path, const QByteArray &body, const QString &token)
{
    httplib::Client c("127.0.0.1", port);
    c.set_read_timeout(30, 0);
    httplib::Headers headers;
    if (!token.isEmpty())
        headers.emplace("Authorization", "Bearer " + token.toStdString());
    const httplib::Result r = c.Post(path.toStdString().c_str(), headers, body.toStdString(), "application/json");
    if (!r)
        return {};
    return {r->status, QByteArray::fromStdString(r->body)};
}

QByteArray httpEvents(int port, const QString &path, int ms, const std::function<void()> &whileOpen)
{
    httplib::Client c("127.0.0.1", port);
    c.set_read_timeout(ms / 1000, (ms % 1000) * 1000);
    QByteArray got;
    bool called = false;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    c.Get(path.toStdString().c_str(), [&](const char *data, size_t n) {
        got.append(data, static_cast<int>(n));
        // Acts once the stream is open, so that nothing it causes is missed.
        if (!called && whileOpen) {
            called = true;
            whileOpen();
        }
        return std::chrono::steady_clock::now() < until;
    });
    return got;
}

PlatformRun::PlatformRun(const QString &binary, int brokerPort, const QString &db)
    : m_binary(binary), m_broker(brokerPort), m_db(db.isEmpty() ? dbPath() : db), m_http(freeTcpPort())
{
}

void PlatformRun::writeConfig(const QString &serial, const QString &file, const QByteArray &text)
{
    writeFile(configDir() + "/" + serial + "/" + file, text);
}

bool PlatformRun::start()
{
    const QStringList args = QStringList{"--broker", QString("127.0.0.1:%1").arg(m_broker), "--db", m_db,
                                         "--http", QString("127.0.0.1:%1").arg(m_http), "--config", configDir()} +
                             m_args;
    return m_proc.start(m_binary, args, m_work.path()) &&
           eventually([&] { return status("broker_connected") == 1; }, 15000);
}

qint64 PlatformRun::status(const char *key)
{
    // Reads what the platform printed, so that a full pipe never stalls it.
    m_proc.waitForOutput("\x01", 1);
    const HttpReply r = get("/api/status");
    if (r.status != 200)
        return -1;
    const QJsonValue v = r.json().object().value(key);
    return v.isBool() ? v.toBool() : static_cast<qint64>(v.toDouble());
}

}  // namespace lumbra::test
