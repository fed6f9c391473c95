// Network ports against plain sockets on loopback.
#include "device_comm/src/ulinkport.h"
#include "fdend.h"
#include "modbusslave.h"
#include "testsupport.h"

#include <gtest/gtest.h>
#include <memory>

using namespace lumbra::test;

namespace {

using PortPtr = std::unique_ptr<ULinkPort, void (*)(ULinkPort *)>;

PortPtr create(int type, const QString &text, bool freePort = false)
{
    auto t = ULinkPort::PortType(type);
    std::string s = text.toStdString();
    return PortPtr(freePort ? ULinkPort::CreateFreePort(t, s) : ULinkPort::CreatePort(t, s), &ULinkPort::ReleasePort);
}

QString local(int port)
{
    return QString("127.0.0.1:%1").arg(port);
}

// Recv until something comes or timeoutMs passed.
QByteArray receive(ULinkPort &port, int timeoutMs = 2000)
{
    QByteArray got;
    eventually([&] { return port.Recv(got, 50) > 0; }, timeoutMs);
    return got;
}

}  // namespace

TEST(NetPorts, SetupTextsThatAreNotAnAddressAndAPortFail)
{
    LogCapture log;
    for (int type : {2, 3, 4, 5, 7}) {
        for (const char *text : {"127.0.0.1", "", ":502:", "plc.local:502", "127.0.0.1:70000", "127.0.0.1:50x"})
            EXPECT_FALSE(create(type, text)) << type << " " << text;
    }
    EXPECT_FALSE(create(4, "127.0.0.1", true));
    EXPECT_TRUE(log.contains("net setup failed:127.0.0.1:70000"));
}

TEST(NetPorts, TcpClientTalksAndComesBackAfterItsPeerLeft)
{
    TcpListener server;
    auto port = create(4, local(server.port()));
    ASSERT_TRUE(port);
    FdEnd peer = server.accept(2000);
    ASSERT_TRUE(peer.ok());
    EXPECT_TRUE(eventually([&] { return port->Send("abc", 3) == 3; }));
    EXPECT_EQ(peer.read(3, 2000), "abc");
    ASSERT_TRUE(peer.write("xyz"));
    EXPECT_EQ(receive(*port), "xyz");
    EXPECT_EQ(port->commStatus(), 1);

    peer.close();
    QByteArray none;
    EXPECT_TRUE(eventually([&] { return port->Recv(none, 50) < 0; }));
    EXPECT_EQ(port->commStatus(), 0);
    EXPECT_EQ(port->Send("abc", 3), -1);

    EXPECT_EQ(port->Reset(), 0);
    FdEnd again = server.accept(2000);
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(port->commStatus(), 1);
    EXPECT_EQ(port->Send("def", 3), 3);
    EXPECT_EQ(again.read(3, 2000), "def");
}

TEST(NetPorts, UdpClientSendsDatagramsAndCountsSilenceAsFailure)
{
    UdpPeer device;
    auto port = create(3, local(device.port()));
    ASSERT_TRUE(port);
    EXPECT_EQ(port->Send("ping", 4), 4);
    int from = 0;
    EXPECT_EQ(device.receive(2000, &from), "ping");
    ASSERT_TRUE(device.sendTo(from, "pong"));
    QByteArray got;
    EXPECT_EQ(port->Recv(got, 2000), 4);
    EXPECT_EQ(got, "pong");
    EXPECT_EQ(port->Recv(got, 50), -1);
}

TEST(NetPorts, UdpServerAnswersTheDeviceThatSpokeLast)
{
    int p = freeTcpPort();
    auto port = create(2, local(p));
    ASSERT_TRUE(port);
    EXPECT_EQ(port->Send("x", 1), 0);  // nobody to answer yet

    UdpPeer first, second;
    ASSERT_TRUE(first.sendTo(p, "hello"));
    EXPECT_EQ(receive(*port), "hello");
    EXPECT_EQ(port->Send("back", 4), 4);
    EXPECT_EQ(first.receive(2000), "back");
    ASSERT_TRUE(second.sendTo(p, "hi"));
    EXPECT_EQ(receive(*port), "hi");
    port->Send("you", 3);
    EXPECT_EQ(second.receive(2000), "you");
    EXPECT_TRUE(first.receive(100).isEmpty());

    LogCapture log;
    EXPECT_FALSE(create(2, local(p)));
    EXPECT_TRUE(log.contains(QString("udp bind port error, port = %1").arg(p)));
}

TEST(NetPorts, RawTcpServerKeepsOneClientAndProbesIt)
{
    int p = freeTcpPort();
    LogCapture log;
    auto port = create(7, local(p));
    ASSERT_TRUE(port);
    EXPECT_EQ(port->accept(), -1);
    FdEnd station = tcpConnect(p);
    ASSERT_TRUE(station.ok());
    EXPECT_TRUE(eventually([&] { return port->accept() >= 0; }));
    EXPECT_TRUE(log.contains("ip:127.0.0.1 conneted"));

    ASSERT_TRUE(station.write("\x68\x04"));
    EXPECT_EQ(receive(*port), "\x68\x04");
    EXPECT_EQ(port->commStatus(), 1);
    EXPECT_EQ(station.read(2, 1000), "01");

    FdEnd next = tcpConnect(p);
    ASSERT_TRUE(next.ok());
    EXPECT_TRUE(eventually([&] { return port->accept() >= 0 && log.count("conneted") == 2; }));
    EXPECT_EQ(port->Send("ok", 2), 2);
    EXPECT_EQ(next.read(2, 1000), "ok");
    EXPECT_TRUE(station.read(1, 500).isEmpty());  // the replaced station was closed

    next.close();
    QByteArray none;
    EXPECT_TRUE(eventually([&] { return port->Recv(none, 50) < 0; }));
    EXPECT_EQ(port->accept(), -1);
    EXPECT_EQ(port->commStatus(), 0);
}

TEST(NetPorts, FreePortClientWaitsForItsPeerUntilReset)
{
    TcpListener server;
    int closed = freeTcpPort();
    auto port = create(4, local(closed), true);
    ASSERT_TRUE(port);  // the peer may come later
    EXPECT_EQ(port->commStatus(), 0);
    EXPECT_EQ(port->Send("a", 1), -1);

    port->setup(local(server.port()).toStdString());
    FdEnd peer = server.accept(2000);
    ASSERT_TRUE(peer.ok());
    EXPECT_EQ(port->commStatus(), 1);
    EXPECT_EQ(port->Send("abc", 3), 3);
    EXPECT_EQ(peer.read(3, 1000), "abc");
    peer.write("r");
    EXPECT_EQ(receive(*port), "r");
    peer.close();
    QByteArray none;
    EXPECT_TRUE(eventually([&] { return port->Recv(none, 50) < 0; }));
    EXPECT_EQ(port->commStatus(), 0);
    EXPECT_EQ(port->Reset(), 0);
    EXPECT_TRUE(server.accept(2000).ok());
}
