// The running gateway in a box of its own: a temp working directory that logs
// to stdout and holds one Modbus TCP link "PLC1" to a libmodbus slave, a temp
// box root with a serial number, and an agent peer where the gateway connects.
#pragma once

#include "agentpeer.h"
#include "modbusslave.h"
#include "process.h"

#include <QTemporaryDir>

#include <memory>

namespace lumbra::test {

class GatewayBox {
public:
    static constexpr const char *kSerial = "LUMBRA-E2E-1";

    // driver: the built libmodbus_tcp.so, copied into the box.
    explicit GatewayBox(const QString &driver);
    // The slave, the peer and the files are all in place.
    bool ready() const { return m_slave && m_agent && m_agent->bound(); }

    ModbusSlave &slave() { return *m_slave; }
    AgentPeer &agent() { return *m_agent; }
    ChildProcess &gateway() { return *m_gateway; }
    QString workPath() const { return m_work.path(); }
    // Writes ./iotRunTime/<name> of the box.
    void writeConfig(const QString &name, const QByteArray &text);
    QByteArray readConfig(const QString &name) const;
    // Writes a file of the box: writeBox("/usr/brenta/...", ...) lands below its root.
    void writeBox(const QString &absolutePath, const QByteArray &text);
    // Starts the gateway; a second call starts a fresh process after the
    // first one has gone.
    bool start();
    // Tells the gateway that the cloud link is up.
    bool cloudUp();
    // As the agent does for a gateway that just started: waits for its state
    // request, then says the cloud link is up.
    bool answerStatusRequest(int timeoutMs = 5000);

private:
    QTemporaryDir m_work, m_root;
    std::unique_ptr<ModbusSlave> m_slave;
    std::unique_ptr<AgentPeer> m_agent;
    std::unique_ptr<ChildProcess> m_gateway;
};

}  // namespace lumbra::test
