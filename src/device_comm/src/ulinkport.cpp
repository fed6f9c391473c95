#include "ulinkport.h"

#include "uclinktcpserver.h"
#include "ulinkfreeporttcpclient.h"
#include "ulinkportcan.h"
#include "ulinkportserial.h"
#include "ulinkporttcpclient.h"
#include "ulinkporttcpserver.h"
#include "ulinkportudpclient.h"
#include "ulinkportudpserver.h"

#include "generalFunc/globals.h"

#include <QThread>

namespace {

// The one place that knows which class serves which port type.
ULinkPort *newPort(ULinkPort::PortType type)
{
    switch (type) {
    case ULinkPort::PORT_SERIAL_MASTER:
    case ULinkPort::PORT_SERIAL_SLAVE:
        return new ULinkPortSerial(type);
    case ULinkPort::PORT_UDP_SERVER:
        return new ULinkPortUdpServer;
    case ULinkPort::PORT_UDP_CLIENT:
        return new ULinkPortUdpClient;
    case ULinkPort::PORT_TCP_CLIENT:
        return new ULinkPortTcpClient;
    case ULinkPort::PORT_TCP_SERVER:
        return new ULinkPortTcpServer;
    case ULinkPort::PORT_CAN:
        return new ULinkPortCAN;
    case ULinkPort::PORT_RAW_TCP_SERVER:
        return new UClinkTcpServer;
    }
    zlog_info(g_zlog, "unknown port type %d", static_cast<int>(type));
    return nullptr;
}

}  // namespace

ULinkPort::ULinkPort(PortType type, QObject *parent) : QObject(parent), m_portType(type)
{
}

ULinkPort::~ULinkPort() = default;

void ULinkPort::MoveToThread(QThread *thread)
{
    moveToThread(thread);
}

void ULinkPort::setClientDataCB(void *callback, void *context)
{
    m_clientDataCB = callback;
    m_clientDataContext = context;
}

void ULinkPort::setLinkPar(const LinkValue &link)
{
    m_linkPar = link;
}

void ULinkPort::setReplyPieces(bool)
{
}

int ULinkPort::Reset()
{
    return 0;
}

int ULinkPort::commStatus()
{
    return 0;
}

int ULinkPort::accept()
{
    return -1;
}

void ULinkPort::flush_clear()
{
}

void ULinkPort::setSupendFlag(bool suspended)
{
    m_suspended = suspended;
}

ULinkPort *ULinkPort::CreatePort(PortType type, const std::string &text)
{
    return setUp(newPort(type), text);
}

ULinkPort *ULinkPort::CreateFreePort(PortType type, const std::string &text)
{
    return type == PORT_TCP_CLIENT ? setUp(new ULinkFreePortTcpClient, text) : CreatePort(type, text);
}

ULinkPort *ULinkPort::setUp(ULinkPort *port, const std::string &text)
{
    if (!port)
        return nullptr;
    // setup() has logged why.
    if (!port->setup(text)) {
        delete port;
        return nullptr;
    }
    return port;
}

void ULinkPort::ReleasePort(ULinkPort *port)
{
    if (!port)
        return;
    port->shutdown();
    delete port;
}
