#include "IotToMqttComm.h"

#include "IotToMqttComm/MqttMsgEvent.h"
#include "RealData/RealData.h"
#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "generalFunc/boxpath.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <nanomsg/nn.h>
#include <nanomsg/pair.h>

#include <cerrno>
#include <cstdint>

namespace {

// Screens and scripts see the cloud link through this local word.
const int kMqttStatusWord = 60830;
// A send blocks while the agent is away; past this the upload is dropped so
// that no caller stalls for good.
const int kSendTimeoutMs = 5000;

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
    // nanomsg keeps reconnecting on its own, so an agent that is not up yet
    // is no reason to give up here.
    QByteArray url = lumbra::agentUrl().toLocal8Bit();
    if (nn_connect(sock, url.constData()) >= 0)
        zlog_info(g_zlog, "nn_connect: %s successed, sock:%d", url.constData(), sock);
    else
        zlog_error(g_zlog, "nn_connect: %s", nn_strerror(nn_errno()));

    // The agent answers with a status notification, which the thread serves.
    msgSend(QString("{\"topic\":\"%1\"}").arg("mqtt_status_req"));
    m_stopping = false;
    start();
}

int IotToMqttComm::msgSend(const QString &text)
{
    return sendBytes(text.toUtf8());
}

int IotToMqttComm::sendBytes(const QByteArray &bytes)
{
    int rc = nn_send(m_socket, bytes.constData(), static_cast<size_t>(bytes.size()), 0);
    if (rc < 0)
        zlog_error(g_zlog, "nn_send:%s \n", nn_strerror(nn_errno()));
    return rc;
}

// The envelope is written by hand: a real-time upload of thousands of points
// would otherwise be copied four times over on its way through a JSON document.
int IotToMqttComm::MqttMsgSend(const QString &topic, const QString &payload, bool zip, int qos)
{
    QByteArray text;
    text.reserve(payload.size() + topic.size() + 96);
    text.append("{\"topic\":");
    lumbra::appendJsonString(text, QString("/%1_%2%3").arg(deviceInfo::getInstance()->sn(), g_IotVersion, topic));
    text.append(",\"qos\":").append(QByteArray::number(qos)).append(",\"msg\":");
    lumbra::appendJsonString(text, payload);
    text.append(",\"zip\":").append(zip ? "true" : "false").append('}');
    // Back-to-back uploads are spaced so the agent is not flooded.
    unitTool::delay_ms(5);
    return sendBytes(text);
}

bool IotToMqttComm::stop(int timeoutMs)
{
    m_stopping = true;
    int sock = m_socket.exchange(-1);
    // Closing wakes a receive or send blocked on the socket in another thread.
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

void IotToMqttComm::setMqttStatus(bool status)
{
    m_mqttStatus = status;
    uint16_t word = status ? 1 : 0;
    communication::getInstance()->setLocalValue(LocalRegisters::LW, kMqttStatusWord, 1,
                                                reinterpret_cast<const uchar *>(&word));
    // An agent that is back has missed the changes of its time away, so the
    // next upload carries every point.
    RealData::getInstance()->setRefreshData(status);
    zlog_info(g_zlog, "get mqtt status:%d", status ? 1 : 0);
}
