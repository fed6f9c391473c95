#include "gatewaybox.h"

#include "testsupport.h"

namespace lumbra::test {

GatewayBox::GatewayBox(const QString &driver)
{
    const int port = freeTcpPort();
    m_slave = ModbusSlave::tcp(port, 1);
    m_agent = std::make_unique<AgentPeer>(QString("tcp://127.0.0.1:%1").arg(freeTcpPort()));
    writeFile(m_root.path() + "/usr/brenta/iot_conf/sn.conf", kSerial);
    writeFile(m_work.path() + "/zlog.conf", "[formats]\ns = \"%V %m%n\"\n[rules]\niot.INFO >stdout; s\n");
    writeFile(m_work.path() + "/iotRunTime/driver/libmodbus_tcp.so", readFile(driver));
    writeConfig("LinkConfiguration.json",
                QString(R"({"data":[{"link_name":"PLC1","link_type":"Ethernet/TCP","link_driver":"modbus_tcp",
                      "hmi_ip":"127.0.0.1","hmi_port":"%1","plc_id":"1","comm_time":20,"timeout1":200,
                      "retry_times":1}]})")
                    .arg(port)
                    .toUtf8());
}

void GatewayBox::writeConfig(const QString &name, const QByteArray &text)
{
    writeFile(m_work.path() + "/iotRunTime/" + name, text);
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

}  // namespace lumbra::test
