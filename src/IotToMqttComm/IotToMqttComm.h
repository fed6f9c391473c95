// The gateway's one link to the local MQTT agent: a nanomsg PAIR socket.
// One thread sends what the services left in the outbox, and watches that
// the agent is still there; the other receives cloud commands and the
// agent's word on the cloud link.
#pragma once

#include "Outbox/Outbox.h"

#include <QString>
#include <QThread>

#include <atomic>
#include <thread>

class IotToMqttComm : public QThread {
    Q_OBJECT
public:
    static IotToMqttComm *getInstance();
    ~IotToMqttComm() override;

    // Connects to the agent, asks for its MQTT state and starts both threads.
    // A second call while running does nothing.
    void init();

    // Queue for the agent (through the outbox): the text as it is, or the
    // payload in the agent's envelope. The queued byte count, or -1 when
    // nothing was queued. Safe from any thread; never waits.
    int msgSend(const QString &text);
    int MqttMsgSend(const QString &topic, const QString &payload, bool zip, int qos);
    // Whether the cloud link is up, as the agent last said and no failed
    // send has contradicted since.
    bool MqttStatus() const { return Outbox::getInstance()->cloudUp(); }

    // Closes the socket and ends both threads, for an orderly end and tests.
    // timeoutMs < 0 waits as long as it takes. True when they have ended.
    bool stop(int timeoutMs = -1);

protected:
    void run() override;

private:
    IotToMqttComm() = default;
    void sendLoop();
    bool sendBytes(const QByteArray &bytes);
    void pauseMs(int ms);
    void handleMessage(const QByteArray &data);
    void setMqttStatus(bool status);

    std::atomic<int> m_socket{-1};
    std::atomic<bool> m_stopping{false};
    std::thread m_sender;
    std::atomic<int> m_lastStatus{-1};  // the last state logged
};
