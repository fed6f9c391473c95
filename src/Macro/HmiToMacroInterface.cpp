#include "HmiToMacroInterface.h"

#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "device_comm/linkvalue.h"
#include "generalFunc/globals.h"

#include <QRegularExpression>

namespace {

communication *links() { return communication::getInstance(); }

// "<link>,<station>" as the script library joins them; the link name may
// itself hold commas, the station never does.
bool splitStation(const QString &text, QString *link, int *station)
{
    const int comma = text.lastIndexOf(',');
    bool ok = false;
    if (comma > 0)
        *station = text.mid(comma + 1).trimmed().toInt(&ok);
    *link = text.left(comma);
    return ok;
}

}  // namespace

HmiToMacroInterface::~HmiToMacroInterface() = default;

QString HmiToMacroInterface::linkName(int linkId)
{
    return links()->getLinkById(linkId).linkName;
}

int HmiToMacroInterface::getIndexFromAddr(const QString &link, const QString &reg, const QString &addr, int station,
                                          int mode)
{
    return links()->getIndexFromAddr(link, reg, addr, station, mode);
}

int HmiToMacroInterface::getIndexFromAddr(int linkId, const QString &reg, const QString &addr, int station, int mode)
{
    return getIndexFromAddr(linkName(linkId), reg, addr, station, mode);
}

int HmiToMacroInterface::setCommValueNumber(const QString &link, const QString &reg, int index, int station, int len,
                                            const uchar *data, int size, int kind, QString *why)
{
    if (index < 0)
        return -1;
    return links()->setCommValue(link, reg, index, station, len, data, size, kind, why);
}

int HmiToMacroInterface::setCommValueNumber(int linkId, const QString &reg, int index, int station, int len,
                                            const uchar *data, int size, int kind, QString *why)
{
    return setCommValueNumber(linkName(linkId), reg, index, station, len, data, size, kind, why);
}

int HmiToMacroInterface::getCommValueNumber(const QString &link, const QString &reg, int index, int station, int len,
                                            uchar *data, int size, int kind, int *quality, int waitMs)
{
    if (index < 0)
        return -1;
    return links()->getCommValue(link, reg, index, station, len, data, size, kind, quality, waitMs);
}

int HmiToMacroInterface::getCommValueNumber(int linkId, const QString &reg, int index, int station, int len,
                                            uchar *data, int size, int kind, int *quality, int waitMs)
{
    return getCommValueNumber(linkName(linkId), reg, index, station, len, data, size, kind, quality, waitMs);
}

int HmiToMacroInterface::suspendComm(const QString &name)
{
    return links()->spendLinkFromName(name);
}

int HmiToMacroInterface::startCom(const QString &name)
{
    return links()->startLinkFromName(name);
}

int HmiToMacroInterface::suspendCommWithStation(const QString &nameAndStation)
{
    QString link;
    int station = 0;
    return splitStation(nameAndStation, &link, &station) ? links()->spendStation(link, station) : -1;
}

int HmiToMacroInterface::startComWithStation(const QString &nameAndStation)
{
    QString link;
    int station = 0;
    return splitStation(nameAndStation, &link, &station) ? links()->startStation(link, station) : -1;
}

QString HmiToMacroInterface::getHmiModel() const
{
    return deviceInfo::getInstance()->model();
}

int HmiToMacroInterface::readDeviceFromLinkid(int linkId, uchar *buf, int len, int timeoutMs)
{
    if (!buf || len <= 0)
        return 0;
    QByteArray data;
    const int n = recvData(linkId, data, len, timeoutMs);
    if (n > 0)
        std::copy(data.constBegin(), data.constBegin() + n, buf);
    return n;
}

// Sends go out at once; the time-out only matters to reads.
int HmiToMacroInterface::writeDeviceFromLinkid(int linkId, const uchar *buf, int len, int)
{
    if (!buf || len <= 0)
        return 0;
    return sendData(linkId, QByteArray(reinterpret_cast<const char *>(buf), len));
}

int HmiToMacroInterface::sendData(int linkId, const QByteArray &data)
{
    return links()->lLinkSendFromID(data, data.size(), linkId);
}

int HmiToMacroInterface::recvData(int linkId, QByteArray &data, int maxLen, int timeoutMs)
{
    if (maxLen <= 0)
        return 0;
    const int n = links()->lLinkReadFromID(data, static_cast<unsigned>(maxLen), linkId, qMax(0, timeoutMs));
    return qMin(n, data.size());
}

int HmiToMacroInterface::resetCommunication(int linkId)
{
    return links()->resetLinkFromID(linkId);
}

int HmiToMacroInterface::statusCommunication(int linkId)
{
    return links()->statusLinkFromID(linkId);
}

int HmiToMacroInterface::closeCommunication(int linkId)
{
    return links()->close_freePort(linkId);
}

int HmiToMacroInterface::openFreeLink(const QString &linkType, const QString &ip, int port, unsigned baud)
{
    LinkValue link;
    link.linkType = linkType;
    link.hmi_ip = ip;
    link.hmi_port = static_cast<uint16_t>(port);
    link.baudrate = baud;
    link.timeout1 = 1000;
    return links()->create_freePort(&link);
}

int HmiToMacroInterface::initCommunicationNet(const QStringList &params)
{
    const QString kind = params.value(0).trimmed().toLower();
    const QString ip = params.value(1).trimmed();
    bool ok = false;
    const int port = params.value(2).trimmed().toInt(&ok);
    if ((kind != "tcp" && kind != "udp") || ip.isEmpty() || !ok || port <= 0 || port > 65535) {
        zlog_error(g_zlog, "initCommunicationNet bad parameters:%s", params.join(',').toLocal8Bit().constData());
        return -1;
    }
    return openFreeLink(kind == "tcp" ? "Ethernet/TCP" : "Ethernet/UDP", ip, port, 0);
}

int HmiToMacroInterface::initCommunicationCan(const QStringList &params)
{
    // The interface name ends up in the set-up command: only canN passes.
    static const QRegularExpression canName("^can[0-9]{1,2}$");
    const QString iface = params.value(1).trimmed().toLower();
    bool ok = false;
    const unsigned baud = params.value(2).trimmed().toUInt(&ok);
    if (!canName.match(iface).hasMatch() || (!ok && !params.value(2).trimmed().isEmpty())) {
        zlog_error(g_zlog, "initCommunicationCan bad parameters:%s", params.join(',').toLocal8Bit().constData());
        return -1;
    }
    return openFreeLink(iface.toUpper(), QString(), 0, baud);
}
