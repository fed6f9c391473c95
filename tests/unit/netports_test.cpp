// Network ports against plain sockets on loopback.
#include "device_comm/src/ulinkport.h"
#include "fdend.h"
#include "modbusslave.h"
#include "testsupport.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

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

sockaddr_in6 v6Loopback(int port)
{
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    a.sin6_port = htons(static_cast<uint16_t>(port));
    return a;
}

// A socket bound to [::1] on a free port (*port); invalid when the box has
// no IPv6 loopback.
FdHandle v6Bound(int type, int *port)
{
    FdHandle fd(::socket(AF_INET6, type | SOCK_CLOEXEC, 0));
    sockaddr_in6 a = v6Loopback(0);
    socklen_t len = sizeof a;
    if (!fd.valid() || ::bind(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        ::getsockname(fd.get(), reinterpret_cast<sockaddr *>(&a), &len) != 0)
        return FdHandle();
    *port = ntohs(a.sin6_port);
    return fd;
}

// Recv until something comes or timeoutMs passed.
QByteArray receive(ULinkPort &port, int timeoutMs = 2000)
{
    QByteArray got;
    eventually([&] { return port.Recv(got, 50) > 0; }, timeoutMs);
    return got;
}

}  // namespace

TEST(NetPorts, SetupTextsThatAreNotAnAddressAndAPortOrUnknownTypesFail)
{
    LogCapture log;
    for (int type : {2, 3, 4, 5, 7}) {
        for (const char *text : {"127.0.0.1", "", ":502:", "plc.local:502", "127.0.0.1:70000", "127.0.0.1:50x",
                                 "::1", "[::1]", "[::1]:", "[::1:502"})
            EXPECT_FALSE(create(type, text)) << type << " " << text;
    }
    EXPECT_FALSE(create(4, "127.0.0.1", true));
    EXPECT_TRUE(log.contains("net setup failed:127.0.0.1:70000"));
    for (int type : {-1, 8, 100}) {
        EXPECT_FALSE(create(type, "127.0.0.1:502")) << type;
        EXPECT_TRUE(log.contains(QString("unknown port type %1").arg(type))) << type;
    }
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

// Which sender a UDP server answers is shown through a running link thread.
TEST(NetPorts, UdpServerWithNobodyToAnswerSendsNothingAndATakenPortFails)
{
    int p = freeTcpPort();
    auto port = create(2, local(p));
    ASSERT_TRUE(port);
    EXPECT_EQ(port->Send("x", 1), 0);
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

TEST(NetPorts, Ipv6LiteralsWorkWithAndWithoutBrackets)
{
    int tcpPort = 0, udpPort = 0;
    FdHandle listener = v6Bound(SOCK_STREAM, &tcpPort);
    if (!listener.valid() || ::listen(listener.get(), 4) != 0)
        GTEST_SKIP() << "no IPv6 loopback here";
    struct Client {
        const char *text;
        bool freePort;
    } clients[] = {{"[::1]:%1", false}, {"::1:%1", false}, {"[::1]:%1", true}};
    for (const Client &c : clients) {
        SCOPED_TRACE(c.text);
        auto port = create(4, QString(c.text).arg(tcpPort), c.freePort);
        ASSERT_TRUE(port);
        pollfd p{listener.get(), POLLIN, 0};
        ASSERT_EQ(::poll(&p, 1, 2000), 1);
        FdEnd peer(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_TRUE(eventually([&] { return port->Send("v6", 2) == 2; }));
        EXPECT_EQ(peer.read(2, 2000), "v6");
        ASSERT_TRUE(peer.write("ok"));
        EXPECT_EQ(receive(*port), "ok");
    }

    FdHandle device = v6Bound(SOCK_DGRAM, &udpPort);
    auto udpClient = create(3, QString("[::1]:%1").arg(udpPort));
    ASSERT_TRUE(udpClient);
    EXPECT_EQ(udpClient->Send("dg", 2), 2);
    FdEnd deviceEnd(device.release());
    EXPECT_EQ(deviceEnd.read(2, 2000), "dg");

    const int serverPort = freeTcpPort();
    auto udpServer = create(2, QString("::1:%1").arg(serverPort));
    ASSERT_TRUE(udpServer);
    FdHandle sender(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 to = v6Loopback(serverPort);
    ASSERT_EQ(::sendto(sender.get(), "hi", 2, 0, reinterpret_cast<sockaddr *>(&to), sizeof to), 2);
    EXPECT_EQ(receive(*udpServer), "hi");

    LogCapture log;
    auto rawServer = create(7, QString("[::1]:%1").arg(serverPort));
    ASSERT_TRUE(rawServer);
    FdHandle station(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(station.get(), reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
    EXPECT_TRUE(eventually([&] { return rawServer->accept() >= 0; }));
    EXPECT_TRUE(log.contains("ip:::1 conneted"));
    EXPECT_TRUE(create(5, QString("[::1]:%1").arg(freeTcpPort())));
}

TEST(NetPorts, FreePortSendGivesUpOnAPeerThatStopsReading)
{
    LogCapture log;
    TcpListener server;
    auto port = create(4, local(server.port()), true);
    ASSERT_TRUE(port);
    LinkValue link;
    link.timeout1 = 200;
    port->setLinkPar(link);
    FdEnd peer = server.accept(2000);  // and never reads
    ASSERT_TRUE(peer.ok());
    const QByteArray chunk(64 * 1024, 'x');
    int rc = 0;
    QElapsedTimer lastSend;
    for (int i = 0; i < 2000 && rc >= 0; ++i) {
        lastSend.start();
        rc = port->Send(chunk.constData(), chunk.size());
    }
    EXPECT_LT(rc, 0);
    EXPECT_GE(lastSend.elapsed(), 190);
    EXPECT_LT(lastSend.elapsed(), 1000);
    EXPECT_EQ(port->commStatus(), 0);  // out of step: a reset starts over
    EXPECT_TRUE(log.contains("free port send to 127.0.0.1:"));
}
