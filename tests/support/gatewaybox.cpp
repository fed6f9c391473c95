#include "gatewaybox.h"

#include "tcplink.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QFile>

namespace lumbra::test {

GatewayBox::GatewayBox(const QString &driver)
{
    const int port = freeTcpPort();
    m_slave = ModbusSlave::tcp(port, 1);
    m_agent = std::make_unique<AgentPeer>(QString("tcp://127.0.0.1:%1").arg(freeTcpPort()));
    writeFile(m_root.path() + "/usr/brenta/iot_conf/sn.conf", kSerial);
    writeFile(m_work.path() + "/zlog.conf", "[formats]\ns = \"%V %m%n\"\n[rules]\niot.INFO >stdout; s\n");
    writeTcpLink(m_work.path(), driver, port, 20);
}

void GatewayBox::writeConfig(const QString &name, const QByteArray &text)
{
    writeFile(m_work.path() + "/iotRunTime/" + name, text);
}

QByteArray GatewayBox::readConfig(const QString &name) const
{
    return readFile(m_work.path() + "/iotRunTime/" + name);
}

void GatewayBox::writeBox(const QString &absolutePath, const QByteArray &text)
{
    writeFile(m_root.path() + absolutePath, text);
}

bool GatewayBox::start()
{
    m_gateway = std::make_unique<ChildProcess>();
    m_gateway->setEnv("LUMBRA_SYSROOT", m_root.path());
    m_gateway->setEnv("LUMBRA_AGENT_URL", m_agent->url());
    return m_gateway->start(gatewayBinary(), {}, m_work.path());
}

bool GatewayBox::cloudUp()
{
    return m_agent->send(R"({"topic":"mqtt_status_Notification","status":true})");
}

bool GatewayBox::answerStatusRequest(int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < timeoutMs) {
        if (m_agent->receiveEnvelope(timeoutMs - t.elapsed()).value("topic").toString() == "mqtt_status_req")
            return cloudUp();
    }
    return false;
}

}  // namespace lumbra::test
