// lumbra-platform as a test starts it: its own working and configuration
// folders, a free loopback HTTP port, a broker port, the database given (a
// SQLite file of its folder by default), its output watched. kill() is a
// kill -9; start() again runs a fresh process on the same folders.
#pragma once

#include "process.h"

#include <QJsonDocument>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>

namespace lumbra::test {

struct HttpReply {
    int status = 0;  // 0: no answer
    QByteArray body;
    QJsonDocument json() const { return QJsonDocument::fromJson(body); }
};

HttpReply httpGet(int port, const QString &path);
HttpReply httpPost(int port, const QString &path, const QByteArray &body, const QString &token = QString());
// Reads a server-sent-events stream for up to ms; the text that came.
QByteArray httpEvents(int port, const QString &path, int ms, const std::function<void()> &whileOpen = nullptr);

class PlatformRun {
public:
    PlatformRun(const QString &binary, int brokerPort, const QString &db = QString());
    // More command-line options, before start().
    void addArgs(const QStringList &args) { m_args += args; }
    bool start();
    void kill() { m_proc.kill(); }
    void stop() { m_proc.stop(); }
    ChildProcess &process() { return m_proc; }
    QString output() { return m_proc.output(); }
    int httpPort() const { return m_http; }
    QString dbPath() const { return m_work.path() + "/platform.db"; }
    QString configDir() const { return m_work.path() + "/config"; }
    // Writes <config>/<serial>/<file>.
    void writeConfig(const QString &serial, const QString &file, const QByteArray &text);
    HttpReply get(const QString &path) { return httpGet(m_http, path); }
    // A number of GET /api/status, -1 when there is no answer.
    qint64 status(const char *key);

private:
    QTemporaryDir m_work;
    QString m_binary;
    int m_broker;
    QString m_db;
    int m_http;
    QStringList m_args;
    ChildProcess m_proc;
};

}  // namespace lumbra::test
