#include "ulinkthread.h"

#include "device_comm/communication.h"
#include "device_comm/ctext.h"
#include "generalFunc/boxpath.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "ulinkport.h"

#include <QRegularExpression>
#include <QTimer>

#include <cstring>

namespace {

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

const unsigned kDefaultCanBitrate = 250000;
const int kIdlePauseMs = 10;

bool isR16Board()
{
    // One look per process: the kernel does not change under us.
    static const bool r16 = [] {
        char out[128];
        unitTool::execute_command("uname -r", out, sizeof out);
        return std::strstr(out, "3.4.39") != nullptr;
    }();
    return r16;
}

}  // namespace

ULinkThread::ULinkThread(int linkId, QObject *parent) : QThread(parent), m_linkId(linkId)
{
    std::memset(&m_sendFrame, 0, sizeof m_sendFrame);
    zlog_info(g_zlog, "LinkThread linkId:%d structure", m_linkId);
}

ULinkThread::~ULinkThread()
{
    stop();
    wait();
    QMutexLocker lock(&m_portMutex);
    if (m_port) {
        ULinkPort::ReleasePort(m_port);
        m_port = nullptr;
    }
    zlog_info(g_zlog, "LinkThread linkId:%d Deconstruction", m_linkId);
}

int ULinkThread::getLinkCOMMType(const LinkValue &link)
{
    if (link.linkType.contains("COM"))
        return link.master_or_slave == 0 ? 0 : 1;
    if (link.linkType == "Ethernet/TCP") {
        if (link.master_or_slave == 0)
            return 4;
        return link.link_driver.contains("iec_104", Qt::CaseInsensitive) ? 7 : 5;
    }
    if (link.linkType.contains("can", Qt::CaseInsensitive))
        return 6;
    return link.master_or_slave == 1 ? 2 : 3;
}

// "COM", blanks, digits: read by hand because every link asks at start, and
// a regular expression would bring in its library's pages for this alone.
int ULinkThread::comNumber(const LinkValue &link)
{
    const QString &type = link.linkType;
    for (int at = type.indexOf(QLatin1String("COM")); at >= 0; at = type.indexOf(QLatin1String("COM"), at + 1)) {
        int i = at + 3;
        while (i < type.size() && (type.at(i) == ' ' || (type.at(i) >= '\t' && type.at(i) <= '\r')))
            ++i;
        int end = i;
        while (end < type.size() && type.at(end) >= '0' && type.at(end) <= '9')
            ++end;
        if (end > i)
            return type.mid(i, end - i).toInt();
    }
    return 0;
}

QString ULinkThread::parityName(const QString &checkBit)
{
    const QString upper = checkBit.trimmed().toUpper();
    return upper == QLatin1String("EVEN") || upper == QLatin1String("ODD") ? upper : QStringLiteral("NONE");
}

QString ULinkThread::canInterface(const LinkValue &link)
{
    QString name = link.linkType.toLower().remove(QRegularExpression("[^a-z0-9]"));
    return name == "can" ? QString("can0") : name;
}

QString ULinkThread::getLinkCOMMConfig(const LinkValue &link)
{
    if (getLinkCOMMType(link) == 6)
        return QString("%1:%2").arg(canInterface(link)).arg(link.baudrate > 0 ? link.baudrate : kDefaultCanBitrate);
    if (link.linkType.contains("COM"))
        return QString("%1-%2-%3-%4-%5")
            .arg(comNumber(link))
            .arg(link.baudrate)
            .arg(link.data_bit)
            .arg(link.stop_bit)
            .arg(parityName(link.check_bit));
    return QString("%1:%2").arg(link.hmi_ip).arg(link.hmi_port);
}

// The two board kinds wire their first two UARTs the other way round; every
// other COM number is its ttyO number on both.
int ULinkThread::gettyOIDFromComID(int comId)
{
    if (comId == 1)
        return isR16Board() ? 2 : 1;
    if (comId == 2)
        return isR16Board() ? 1 : 2;
    return comId;
}

void ULinkThread::fillLinkInfo(LUMBRA_LINK_INFO &info) const
{
    std::memset(&info, 0, sizeof info);
    info.abi_version = LUMBRA_DRIVER_ABI_VERSION;
    info.link_id = m_linkId;
    info.comm_type = m_commType;
    info.master_or_slave = m_link.master_or_slave;
    info.hmi_position = m_link.hmi_position;
    info.screen_id = m_link.screen_id;
    info.plc_id = m_link.plc_id;
    info.comm_time = m_link.comm_time;
    info.timeout1 = m_link.timeout1;
    info.timeout2 = m_link.timeout2;
    info.retry_times = m_link.retry_times;
    info.address_mode = m_link.address_mode;
    info.address_step = m_link.address_step;
    info.data_conver = m_link.data_conver;
    info.baudrate = static_cast<int32_t>(m_link.baudrate);
    lumbra::copyCText(info.link_name, sizeof info.link_name, m_link.linkName);
    lumbra::copyCText(info.link_device, sizeof info.link_device, m_link.link_device);
    lumbra::copyCText(info.remote_property, sizeof info.remote_property, m_link.remote_property);
    lumbra::copyCText(info.station_data_conver, sizeof info.station_data_conver, m_link.station_data_conver);
}

// Said once here: the port is retried every 10 s and must not repeat it.
void ULinkThread::checkSerialLink()
{
    const int com = comNumber(m_link);
    m_ttyNumber = com > 0 ? gettyOIDFromComID(com) : -1;
    if (com <= 0)
        zlog_error(g_zlog, "link:%s link_type \"%s\" names no COM port number (COM1, COM2, ...): port not opened",
                   local8(m_linkName).constData(), local8(m_link.linkType).constData());
    const QString parity = m_link.check_bit.trimmed();
    if (!parity.isEmpty() && parityName(parity).compare(parity, Qt::CaseInsensitive) != 0)
        zlog_warn(g_zlog, "link:%s check_bit \"%s\" unknown, no parity", local8(m_linkName).constData(),
                  local8(parity).constData());
}

bool ULinkThread::initLib(int linkId, const char *driver, ValueChangedCB valueChangedCB)
{
    QString path = lumbra::boxPath("/usr/brenta/project/driver/") + QString("lib%1_%2.so").arg(driver).arg(linkId);
    zlog_debug(g_zlog, "CLinkDriver::loadDriver %s", local8(path).constData());
    auto drv = std::make_unique<CLinkDriver>();
    if (!drv->loadDriver(path, valueChangedCB))
        return false;
    CLinkDriver::setLinkName(linkId, m_linkName);
    LUMBRA_LINK_INFO info;
    fillLinkInfo(info);
    int size = sizeof info;
    QByteArray property = m_link.driver_property.toUtf8();
    drv->InitProperty(reinterpret_cast<uchar *>(&info), nullptr, nullptr, size, property.data(), nullptr);
    drv->SetDriverPropertyPage(m_link.driver_property);
    m_driver = std::move(drv);
    return true;
}

int ULinkThread::InitLink(const LinkValue &link, ValueChangedCB valueChangedCB, ErrorCB errorCB, uchar *,
                          unsigned)
{
    if (m_initialised) {
        zlog_info(g_zlog, "link:%s Already initialized", local8(m_linkName).constData());
        return -2;
    }
    m_link = link;
    m_linkName = link.linkName;
    m_driverName = link.link_driver;
    m_errorCB = errorCB;
    m_commType = getLinkCOMMType(link);
    m_commConfig = getLinkCOMMConfig(link);
    zlog_info(g_zlog, "CommPar:%s", local8(m_commConfig).constData());
    if (m_commType == 0 || m_commType == 1)
        checkSerialLink();
    m_replyTimeout = link.timeout1 > 0 ? link.timeout1 : 1000;
    if (link.driver_lib == "mqtt") {
        zlog_info(g_zlog, "driverlib mqtt return");
        return 0;
    }
    const bool freePort = m_driverName == "free_protocol";
    if (!freePort && initLib(m_linkId, local8(m_driverName).constData(), valueChangedCB)) {
        int32_t id = m_linkId, type = m_commType;
        m_driver->SetFunc(LUMBRA_FUNC_LINK_ID, &id);
        m_driver->SetFunc(LUMBRA_FUNC_COMM_TYPE, &type);
    }
    m_mpi = m_driverName == "siemens_s7_300_mpi" && link.link_device == "un300(mpi)";
    int rc;
    {
        QMutexLocker lock(&m_portMutex);
        rc = InitPort();
    }
    m_initialised = true;
    // Free ports carry no driver loop: scripts move their bytes directly.
    if (!freePort)
        start();
    return rc;
}

// Called with the port mutex held.
int ULinkThread::InitPort()
{
    if (m_mpi)
        return initMPI() >= 0 ? 0 : -1;
    std::string text = m_commConfig.toStdString();
    if (m_commType == 0 || m_commType == 1) {
        if (m_ttyNumber < 0)
            return -1;  // no COM number: InitLink said so
        // The serial port opens a ttyO device, so it gets the mapped number and
        // the line mode instead of the COM number.
        QStringList parts = m_commConfig.split('-');
        parts[0] = QString::number(m_ttyNumber);
        parts << QString::number(m_link.serial_comm_protocol);
        text = parts.join('-').toStdString();
    }
    auto type = static_cast<ULinkPort::PortType>(m_commType);
    ULinkPort *port = m_driverName == "free_protocol" ? ULinkPort::CreateFreePort(type, text)
                                                      : ULinkPort::CreatePort(type, text);
    if (!port) {
        zlog_info(g_zlog, "link:%s port open failed:%s", local8(m_linkName).constData(), text.c_str());
        return -1;
    }
    port->setLinkPar(m_link);
    port->setReplyPieces(m_driver && m_driver->abiVersion() >= 2);
    if (servesClients())
        port->setClientDataCB(reinterpret_cast<void *>(&ULinkThread::clientRequestCB), this);
    port->MoveToThread(this);
    m_port = port;
    return 0;
}

void ULinkThread::pause(int ms)
{
    // In slices, so that stop() does not wait out a 10 s back-off.
    while (ms > 0 && !m_stopRequested) {
        int step = ms > 50 ? 50 : ms;
        unitTool::delay_ms(step);
        ms -= step;
    }
}

void ULinkThread::stop()
{
    m_stopRequested = true;
    m_running = false;
    quit();
    QMutexLocker lock(&m_exchangeMutex);
    m_exchanged.wakeAll();  // writers stop waiting for a thread that ends
}

void ULinkThread::run()
{
    if (!m_driver) {
        zlog_info(g_zlog, "driver link exit :%s", local8(m_linkName).constData());
        return;
    }
    // 0 polls back to back; turns with nothing to do still rest (idlePause).
    m_cycleDelay = static_cast<uint16_t>(qBound(0, m_link.comm_time, 65535));
    m_running = !m_stopRequested;
    while (m_running && !m_stopRequested) {
        if (m_suspended) {
            pause(idlePause());
            continue;
        }
        if (!m_driver) {
            m_running = false;
            break;
        }
        if (m_mpi) {
            dealMPI();
            pause(idlePause());
            continue;
        }
        if (!m_port) {
            QMutexLocker lock(&m_portMutex);
            if (InitPort() != 0) {
                lock.unlock();
                setSpeAddrStationError(m_station, false);
                setSpeAddrComError(false);
                pause(10000);
                continue;
            }
        }
        bool exchanged = false;
        if (servesClients()) {
            serveEvents();
        } else {
            QMutexLocker lock(&m_portMutex);
            exchanged = runTurn();
        }
        pause(exchanged ? m_cycleDelay : idlePause());
    }
    QMutexLocker lock(&m_portMutex);
    if (m_port) {
        ULinkPort::ReleasePort(m_port);
        m_port = nullptr;
    }
    zlog_debug(g_zlog, "%s %s @@@", "device_comm/src/ulinkthread", __func__);
}

// Server ports answer requests as they come, so the driver serves them
// from this thread's event loop instead of the polling turn.
bool ULinkThread::servesClients() const
{
    return m_commType == ULinkPort::PORT_TCP_SERVER || m_commType == ULinkPort::PORT_UDP_SERVER;
}

// The server port lives on this thread's event loop. A quit() that
// comes before exec() starts would be lost, so the loop watches the stop
// flag itself.
void ULinkThread::serveEvents()
{
    QTimer stopWatch;
    stopWatch.setInterval(50);
    connect(&stopWatch, &QTimer::timeout, [this] {
        if (m_stopRequested)
            exit(0);
    });
    stopWatch.start();
    exec();
}

// A turn that found nothing to do must not come straight round again, or a
// link with nothing to poll would spin a core.
int ULinkThread::idlePause() const
{
    return qMax<int>(m_cycleDelay, kIdlePauseMs);
}

bool ULinkThread::runTurn()
{
    if (!m_port)
        return false;
    if (m_commType == 1) {
        dealSlave();
        return true;
    }
    if (m_commType == 7) {
        const int client = m_port->accept();
        if (client != m_104Client)
            m_apdus.clear();  // a new connection, a new byte stream
        m_104Client = client;
        if (client == -1)
            return false;
        deal_104_msg();
        return true;
    }
    if (m_linkName.contains("iec_104_client")) {
        dealIec104Client();
        return true;
    }
    return deal_Protocol();
}

void ULinkThread::setSupend(bool suspend)
{
    m_suspended = suspend;
    QMutexLocker lock(&m_portMutex);
    if (m_port)
        m_port->setSupendFlag(suspend);
}

int ULinkThread::lLinkSend(const QByteArray &data, int len)
{
    QMutexLocker lock(&m_portMutex);
    if (!m_port || len < 0)
        return -1;
    return m_port->Send(data.constData(), qMin(len, data.size()));
}

int ULinkThread::lLinkRead(QByteArray &data, unsigned maxLen, int timeoutMs)
{
    QMutexLocker lock(&m_portMutex);
    if (!m_port)
        return -1;
    if (m_recvBuf.isEmpty() && m_port->Recv(m_recvBuf, timeoutMs) < 0)
        return -1;
    // What the caller has no room for waits for its next read.
    data = m_recvBuf.left(static_cast<int>(maxLen));
    m_recvBuf.remove(0, data.size());
    return data.size();
}

int ULinkThread::lLinkReset()
{
    QMutexLocker lock(&m_portMutex);
    m_recvBuf.clear();
    if (!m_port)
        return InitPort();
    m_port->Reset();
    return 0;
}

int ULinkThread::lLinkStatus()
{
    QMutexLocker lock(&m_portMutex);
    return m_port ? m_port->commStatus() : -1;
}
