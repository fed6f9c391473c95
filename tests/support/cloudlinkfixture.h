// A gateway in the test process: a Modbus TCP link "PLC1" to a libmodbus
// slave, and for its cloud side the agent bridge connected to a bound agent
// peer with the dispatch table filled. Test targets define MODBUS_TCP_DRIVER.
#pragma once

#include "IotToMqttComm/IotToMqttComm.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "agentpeer.h"
#include "device_comm/communication.h"
#include "modbusslave.h"
#include "tcplink.h"
#include "testsupport.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace lumbra::test {

class DeviceFixture : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    BoxRoot box;
    const int port = freeTcpPort();
    std::unique_ptr<ModbusSlave> slave = ModbusSlave::tcp(port, 1);
    communication *comm = communication::getInstance();

    void SetUp() override
    {
        ASSERT_TRUE(slave);
        writeTcpLink(work.path(), MODBUS_TCP_DRIVER, port);
        comm->initLinks();
    }
    // Services stop first (their subclass TearDown), the link last.
    void TearDown() override { comm->stopLinks(); }
};

class CloudLinkFixture : public DeviceFixture {
protected:
    const QString url = QString("tcp://127.0.0.1:%1").arg(freeTcpPort());
    AgentPeer agent{url};

    void SetUp() override
    {
        ASSERT_TRUE(agent.bound());
        MqttMsgEvent::MqttDealMapInit();
        setenv("LUMBRA_AGENT_URL", url.toLocal8Bit().constData(), 1);
        IotToMqttComm::getInstance()->init();
        DeviceFixture::SetUp();
    }
    void TearDown() override
    {
        DeviceFixture::TearDown();
        IotToMqttComm::getInstance()->stop(2000);
    }
    // A cloud command as the agent hands it over.
    void send(const char *topic, const QString &payload)
    {
        ASSERT_TRUE(agent.send(QJsonDocument(QJsonObject{{"topic", topic}, {"msg", payload}}).toJson()));
    }
};

}  // namespace lumbra::test
