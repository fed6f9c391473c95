// The gateway's one link to the local MQTT agent: a nanomsg PAIR socket over
// which uploads leave as JSON envelopes and cloud commands and the agent's
// connection state come back, served by this thread.
#pragma once

#include <QString>
#include <QThread>

#include <atomic>

class IotToMqttComm : public QThread {
    Q_OBJECT
public:
    static IotToMqttComm *getInstance();
    ~IotToMqttComm() override;

    // Connects to the agent, asks for its MQTT state and starts receiving.
    // A second call while connected does nothing.
    void init();

    // Sends text as it is. Returns nn_send's result: the byte count, or a
    // negative value when nothing was sent (no socket, or the agent did not
    // take it within 5 s).
    int msgSend(const QString &text);
    // Wraps payload in the agent's envelope under "/<sn>_<version><topic>".
    // Safe from any thread.
    int MqttMsgSend(const QString &topic, const QString &payload, bool zip, int qos);
    // Whether the agent last reported its MQTT connection as up.
    bool MqttStatus() const { return m_mqttStatus; }

    // Closes the socket and ends the thread, for an orderly end and tests;
    // nothing else ever closes it. timeoutMs < 0 waits as long as it takes.
    // True when the thread has ended.
    bool stop(int timeoutMs = -1);

protected:
    void run() override;

private:
    IotToMqttComm() = default;
    void handleMessage(const QByteArray &data);
    int sendBytes(const QByteArray &bytes);
    void setMqttStatus(bool status);

    std::atomic<int> m_socket{-1};
    std::atomic<bool> m_mqttStatus{false};
    std::atomic<bool> m_stopping{false};
};
