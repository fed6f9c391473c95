#include "mosquittobroker.h"

#include "fdend.h"
#include "testsupport.h"

#include <QMutexLocker>

#include <mosquitto.h>
#include <pwd.h>
#include <unistd.h>

namespace lumbra::test {

MosquittoBroker::MosquittoBroker(const QString &user, const QString &password) : m_port(freeTcpPort())
{
    // Logs go to a file only: a pipe nobody reads would fill and stall the
    // broker.
    // Without set_tcp_nodelay every acknowledged round trip through the
    // broker waits out a delayed ACK (about 40 ms on Linux).
    QByteArray conf = "listener " + QByteArray::number(m_port) + " 127.0.0.1\npersistence false\nset_tcp_nodelay true\n"
                      "log_type all\nlog_dest file " + (m_dir.path() + "/broker.log").toUtf8() + "\n";
    // Started as root, mosquitto would become user "mosquitto", which cannot
    // read our private temp dir.
    if (const passwd *me = getpwuid(getuid()))
        conf += "user " + QByteArray(me->pw_name) + "\n";
    if (user.isEmpty()) {
        conf += "allow_anonymous true\n";
    } else {
        const QString file = m_dir.path() + "/passwd";
        writeFile(file, QString("%1:%2\n").arg(user, password).toUtf8());
        ChildProcess encode;
        encode.start("/usr/bin/mosquitto_passwd", {"-U", file}, m_dir.path());
        encode.waitForExit(5000);
        conf += "allow_anonymous false\npassword_file " + file.toUtf8() + "\n";
    }
    writeFile(m_dir.path() + "/mosquitto.conf", conf);
}

void MosquittoBroker::addConfig(const QByteArray &lines)
{
    writeFile(m_dir.path() + "/mosquitto.conf", readFile(m_dir.path() + "/mosquitto.conf") + lines + "\n");
}

bool MosquittoBroker::start()
{
    m_proc = std::make_unique<ChildProcess>();
    if (m_proc->start("/usr/sbin/mosquitto", {"-c", m_dir.path() + "/mosquitto.conf"}, m_dir.path()) &&
        eventually([&] { return tcpConnect(m_port).ok(); }, 5000))
        return true;
    m_proc->waitForExit(1000);
    fprintf(stderr, "mosquitto did not start:\n%s%s\n", m_proc->output().toLocal8Bit().constData(),
            readFile(m_dir.path() + "/broker.log").constData());
    return false;
}

void MosquittoBroker::stop()
{
    if (m_proc)
        m_proc->stop();
}

int MosquittoBroker::refusals()
{
    return QString::fromUtf8(readFile(m_dir.path() + "/broker.log")).count("disconnected, not authorised");
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

MqttProbe::MqttProbe(int port, const QString &filter)
{
    mosquitto_lib_init();
    m_mosq = mosquitto_new(nullptr, true, this);
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
