#include "IotToMqttComm.h"

#include "IotToMqttComm/MqttMsgEvent.h"
#include "generalFunc/boxpath.h"
#include "generalFunc/globals.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>

#include <nanomsg/nn.h>
#include <nanomsg/pair.h>
#include <nanomsg/tcp.h>

#include <cerrno>

namespace {

// Only the sender thread waits on a send; an agent that does not take a
// message within this is gone or stuck, and the cloud counts as down.
const int kSendTimeoutMs = 1000;
// An idle link is used this often: a send to an agent that died fails, and
// the agent answers each state request with its word on the cloud link, so
// a dead agent, or a fresh one in its place, is noticed within seconds.
const int kHeartbeatMs = 3000;
// While the agent is away, it is asked this often whether it is back.
const int kProbeMs = 1000;

const char kStateRequest[] = "{\"topic\":\"mqtt_status_req\"}";

qint64 monotonicMs()
{
    static QElapsedTimer clock = [] {
        QElapsedTimer t;
        t.start();
        return t;
    }();
    return clock.elapsed() + 1;  // never 0: 0 means "never"
}

}  // namespace

IotToMqttComm *IotToMqttComm::getInstance()
{
    static IotToMqttComm instance;
    return &instance;
}

IotToMqttComm::~IotToMqttComm()
{
    stop();
}

void IotToMqttComm::init()
{
    if (m_socket >= 0 || isRunning()) {
        zlog_info(g_zlog, "agent link already up, sock:%d", m_socket.load());
        return;
    }
    int sock = nn_socket(AF_SP, NN_PAIR);
    if (sock < 0) {
        zlog_info(g_zlog, "Failed to create socket: %s", nn_strerror(nn_errno()));
        return;
    }
    m_socket = sock;
    int timeout = kSendTimeoutMs;
    if (nn_setsockopt(sock, NN_SOL_SOCKET, NN_SNDTIMEO, &timeout, sizeof timeout) < 0)
        zlog_error(g_zlog, "nn_setsockopt fail:%s", nn_strerror(nn_errno()));
    // A whole configuration from the platform can pass nanomsg's 1 MB default
    // receive limit, which drops the link rather than the message.
    int unlimited = -1;
    if (nn_setsockopt(sock, NN_SOL_SOCKET, NN_RCVMAXSIZE, &unlimited, sizeof unlimited) < 0)
        zlog_error(g_zlog, "nn_setsockopt fail:%s", nn_strerror(nn_errno()));
    // Acknowledged traffic (alarm events, history batches) waits a round trip
    // per message: Nagle's delay would add a delayed-ACK period to each.
    int noDelay = 1;
    if (nn_setsockopt(sock, NN_TCP, NN_TCP_NODELAY, &noDelay, sizeof noDelay) < 0)
        zlog_error(g_zlog, "nn_setsockopt fail:%s", nn_strerror(nn_errno()));
    // nanomsg keeps reconnecting on its own, so an agent that is not up yet
    // is no reason to give up here.
    QByteArray url = lumbra::agentUrl().toLocal8Bit();
    if (nn_connect(sock, url.constData()) >= 0)
        zlog_info(g_zlog, "nn_connect: %s successed, sock:%d", url.constData(), sock);
    else
        zlog_error(g_zlog, "nn_connect: %s", nn_strerror(nn_errno()));
    m_stopping = false;
    Outbox::getInstance()->open();
    start();
    // The first thing the sender does is to ask the agent for its state.
    m_sender = std::thread([this] { sendLoop(); });
}

int IotToMqttComm::msgSend(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    return Outbox::getInstance()->postRaw(bytes) ? bytes.size() : -1;
}

int IotToMqttComm::MqttMsgSend(const QString &topic, const QString &payload, bool zip, int qos)
{
    return Outbox::getInstance()->post(topic, payload, zip, qos, Outbox::Ordered) ? payload.size() : -1;
}

bool IotToMqttComm::sendBytes(const QByteArray &bytes)
{
    const int rc = nn_send(m_socket, bytes.constData(), static_cast<size_t>(bytes.size()), 0);
    if (rc < 0 && !m_stopping)
        zlog_error(g_zlog, "nn_send:%s \n", nn_strerror(nn_errno()));
    return rc >= 0;
}

// The sender: the only thread that sends. While the agent is away nothing
// is taken from the outbox (it keeps, coalesces or refuses what services
// post); the agent is asked every second whether it is back.
void IotToMqttComm::sendLoop()
{
    Outbox *outbox = Outbox::getInstance();
    qint64 lastSent = 0;
    bool reachable = false;
    const auto lost = [&] {
        if (reachable)
            zlog_info(g_zlog, "agent does not take messages: cloud link down");
        reachable = false;
        m_lastStatus = -1;
        outbox->agentLost();
    };
    while (!m_stopping) {
        const qint64 now = monotonicMs();
        if (!reachable || now - lastSent >= kHeartbeatMs) {
            lastSent = now;
            if (sendBytes(kStateRequest)) {
                reachable = true;
            } else {
                lost();
                pauseMs(kProbeMs);
            }
            continue;
        }
        Outbox::Message m;
        if (!outbox->take(&m, 200))
            continue;
        if (sendBytes(m.text)) {
            lastSent = now;
        } else {
            outbox->putBack(m);
            lost();
        }
    }
}

void IotToMqttComm::pauseMs(int ms)
{
    for (; ms > 0 && !m_stopping; ms -= 50)
        QThread::msleep(static_cast<unsigned long>(qMin(ms, 50)));
}

bool IotToMqttComm::stop(int timeoutMs)
{
    m_stopping = true;
    Outbox::getInstance()->close();
    if (m_sender.joinable())
        m_sender.join();
    int sock = m_socket.exchange(-1);
    // Closing wakes a receive blocked on the socket in the other thread.
    if (sock >= 0)
        nn_close(sock);
    return timeoutMs < 0 ? wait() : wait(static_cast<unsigned long>(timeoutMs));
}

void IotToMqttComm::run()
{
    while (!m_stopping) {
        int sock = m_socket;
        char *buf = nullptr;
        int len = nn_recv(sock, &buf, NN_MSG, 0);
        if (len < 0) {
            int err = nn_errno();
            if (m_stopping)
                break;
            zlog_info(g_zlog, "Failed to receive message: %s sock:%d", nn_strerror(err), sock);
            // A closed socket or a terminated library never delivers again.
            if (err == EBADF || err == ETERM)
                break;
            continue;
        }
        QByteArray data(buf, len);
        nn_freemsg(buf);
        handleMessage(data);
    }
}

void IotToMqttComm::handleMessage(const QByteArray &data)
{
    zlog_debug(g_zlog, "Received : %s\n", data.constData());
    QJsonParseError error;
    QJsonDocument doc = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        zlog_error(g_zlog, "json data:%s parse fail", data.constData());
        return;
    }
    QJsonObject obj = doc.object();
    QString topic = obj.value("topic").toString();
    if (topic == "mqtt_status_Notification") {
        setMqttStatus(obj.value("status").toBool(false));
        return;
    }

    MqttMsgEvent::DealFunc func = nullptr;
    if (!MqttMsgEvent::lookup(topic, &func))
        zlog_debug(g_zlog, "topic:%s has no handler, dropped", topic.toUtf8().constData());
    else if (!func)
        zlog_debug(g_zlog, "topic:%s not served yet, dropped", topic.toUtf8().constData());
    else
        func(obj.value("msg").toString());
}

// The agent answers every heartbeat: only a change is worth a line.
void IotToMqttComm::setMqttStatus(bool status)
{
    Outbox::getInstance()->setCloudState(status);
    if (m_lastStatus.exchange(status ? 1 : 0) == (status ? 1 : 0))
        return;
    zlog_info(g_zlog, "get mqtt status:%d", status ? 1 : 0);
}
