#include "mosquittobroker.h"

#include "fdend.h"
#include "testsupport.h"

#include <QMutexLocker>

#include <mosquitto.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

namespace lumbra::test {

MosquittoBroker::MosquittoBroker(const QString &user, const QString &password) : m_port(freeTcpPort())
{
    if (user.isEmpty()) {
        m_auth = "allow_anonymous true\n";
        return;
    }
    const QString file = m_dir.path() + "/passwd";
    writeFile(file, QString("%1:%2\n").arg(user, password).toUtf8());
    ChildProcess encode;
    encode.start("/usr/bin/mosquitto_passwd", {"-U", file}, m_dir.path());
    encode.waitForExit(5000);
    m_auth = "allow_anonymous false\npassword_file " + file.toUtf8() + "\n";
}

int MosquittoBroker::addTlsListener(const TlsFiles &tls)
{
    const int port = freeTcpPort();
    m_tls.append({port, tls});
    return port;
}

void MosquittoBroker::setAcl(const QByteArray &lines)
{
    const QString file = m_dir.path() + "/acl";
    writeFile(file, lines);
    m_extra += "acl_file " + file.toUtf8() + "\n";
}

bool MosquittoBroker::start()
{
    // Logs go to a file only: a pipe nobody reads would fill and stall the
    // broker.
    // Without set_tcp_nodelay every acknowledged round trip through the
    // broker waits out a delayed ACK (about 40 ms on Linux).
    QByteArray conf = "persistence false\nset_tcp_nodelay true\nlog_type all\nlog_dest file " +
                      (m_dir.path() + "/broker.log").toUtf8() + "\n" + m_auth + m_extra;
    // Started as root, mosquitto would become user "mosquitto", which cannot
    // read our private temp dir.
    if (const passwd *me = getpwuid(getuid()))
        conf += "user " + QByteArray(me->pw_name) + "\n";
    QList<int> ports;
    if (m_plain || m_tls.isEmpty()) {
        conf += "listener " + QByteArray::number(m_port) + " 127.0.0.1\n";
        ports << m_port;
    }
    for (const auto &l : qAsConst(m_tls)) {
        conf += "listener " + QByteArray::number(l.first) + " 127.0.0.1\ncafile " + l.second.cafile.toUtf8() +
                "\ncertfile " + l.second.certfile.toUtf8() + "\nkeyfile " + l.second.keyfile.toUtf8() +
                "\nrequire_certificate " + (l.second.requireCertificate ? "true" : "false") + "\n";
        ports << l.first;
    }
    writeFile(m_dir.path() + "/mosquitto.conf", conf);
    m_proc = std::make_unique<ChildProcess>();
    const auto listening = [&] {
        for (int p : ports)
            if (!tcpConnect(p).ok())
                return false;
        return true;
    };
    if (m_proc->start("/usr/sbin/mosquitto", {"-c", m_dir.path() + "/mosquitto.conf"}, m_dir.path()) &&
        eventually(listening, 5000))
        return true;
    m_proc->waitForExit(1000);
    fprintf(stderr, "mosquitto did not start:\n%s%s\n", m_proc->output().toLocal8Bit().constData(), log().constData());
    return false;
}

void MosquittoBroker::stop()
{
    if (m_proc)
        m_proc->stop();
}

void MosquittoBroker::kill()
{
    if (m_proc)
        m_proc->kill();
}

bool MosquittoBroker::pause()
{
    return m_proc && m_proc->running() && ::kill(pid_t(m_proc->pid()), SIGSTOP) == 0;
}

bool MosquittoBroker::resume()
{
    return m_proc && m_proc->running() && ::kill(pid_t(m_proc->pid()), SIGCONT) == 0;
}

QByteArray MosquittoBroker::log()
{
    return readFile(m_dir.path() + "/broker.log");
}

int MosquittoBroker::refusals()
{
    return QString::fromUtf8(log()).count("disconnected, not authorised");
}

TestPki::TestPki()
{
    m_ok = openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days",
                    "2", "-subj", "/CN=Lumbra test CA", "-keyout", file("ca.key"), "-out", caFile()});
}

bool TestPki::openssl(const QStringList &args)
{
    ChildProcess p;
    if (!p.start("/usr/bin/openssl", args, m_dir.path()) || !p.waitForExit(20000) || p.exitCode() != 0) {
        fprintf(stderr, "openssl %s failed:\n%s\n", args.join(' ').toLocal8Bit().constData(),
                p.output().toLocal8Bit().constData());
        return false;
    }
    return true;
}

bool TestPki::make(const QString &name, const QString &san, bool selfSigned)
{
    const QString key = file(name + ".key"), crt = file(name + ".crt");
    const QStringList newKey{"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key,
                             "-subj", "/CN=" + name};
    if (selfSigned)
        return openssl(QStringList{"req", "-x509", "-days", "2", "-addext", "subjectAltName=" + san, "-out", crt} +
                       newKey);
    const QString ext = file(name + ".ext");
    writeFile(ext, ("subjectAltName=" + san + "\n").toUtf8());
    return openssl(QStringList{"req", "-out", file(name + ".csr")} + newKey) &&
           openssl({"x509", "-req", "-in", file(name + ".csr"), "-CA", caFile(), "-CAkey", file("ca.key"),
                    "-CAcreateserial", "-days", "2", "-extfile", ext, "-out", crt});
}

bool TestPki::encryptKey(const QString &name, const QString &password)
{
    return openssl({"pkey", "-in", file(name + ".key"), "-aes256", "-passout", "pass:" + password, "-out",
                    file(name + ".enc.key")});
}

namespace {

void onMessage(mosquitto *, void *obj, const mosquitto_message *m)
{
    static_cast<MqttProbe *>(obj)->received(m->topic, QByteArray(static_cast<const char *>(m->payload), m->payloadlen));
}

void onConnect(mosquitto *, void *obj, int rc)
{
    if (rc == 0)
        static_cast<MqttProbe *>(obj)->setConnected();
}

}  // namespace

MqttProbe::MqttProbe(int port, const QString &filter, const TlsFiles &tls)
{
    mosquitto_lib_init();
    m_mosq = mosquitto_new(nullptr, true, this);
    if (!tls.cafile.isEmpty())
        mosquitto_tls_set(m_mosq, tls.cafile.toLocal8Bit().constData(), nullptr,
                          tls.certfile.isEmpty() ? nullptr : tls.certfile.toLocal8Bit().constData(),
                          tls.keyfile.isEmpty() ? nullptr : tls.keyfile.toLocal8Bit().constData(), nullptr);
    mosquitto_message_callback_set(m_mosq, onMessage);
    mosquitto_connect_callback_set(m_mosq, onConnect);
    mosquitto_connect(m_mosq, "127.0.0.1", port, 30);
    mosquitto_subscribe(m_mosq, nullptr, filter.toUtf8().constData(), 0);
    mosquitto_loop_start(m_mosq);
}

MqttProbe::~MqttProbe()
{
    mosquitto_disconnect(m_mosq);
    mosquitto_loop_stop(m_mosq, false);
    mosquitto_destroy(m_mosq);
}

bool MqttProbe::connected(int timeoutMs)
{
    return eventually([&] { QMutexLocker lock(&m_mutex); return m_connected; }, timeoutMs);
}

bool MqttProbe::publish(const QString &topic, const QByteArray &payload)
{
    return mosquitto_publish(m_mosq, nullptr, topic.toUtf8().constData(), payload.size(), payload.constData(), 0,
                             false) == MOSQ_ERR_SUCCESS;
}

void MqttProbe::received(const QString &topic, const QByteArray &payload)
{
    QMutexLocker lock(&m_mutex);
    m_messages.append({topic, payload});
}

void MqttProbe::setConnected()
{
    QMutexLocker lock(&m_mutex);
    m_connected = true;
}

QList<MqttMessage> MqttProbe::take(const QString &topic, int count, int timeoutMs)
{
    QList<MqttMessage> out;
    eventually([&] {
        QMutexLocker lock(&m_mutex);
        out.clear();
        for (const MqttMessage &m : qAsConst(m_messages))
            if (m.topic == topic)
                out << m;
        return out.size() >= count;
    }, timeoutMs);
    return out;
}

QList<MqttMessage> MqttProbe::all()
{
    QMutexLocker lock(&m_mutex);
    return m_messages;
}

}  // namespace lumbra::test
