// Link and station state, mirrored into the local bit area "LB" so that
// scripts, alarms and the platform can see which device stopped answering.
#include "ulinkthread.h"

#include "device_comm/communication.h"
#include "generalFunc/globals.h"

namespace {

const int kStationErrorBase = 61000;  // 256 bits per serial port 1..4
const int kStationShadowBase = -1000; // shadow keys of stations that own no bit

}  // namespace

int ULinkThread::comErrorBit(int portNumber)
{
    switch (portNumber) {
    case 1: return 60104;
    case 2: return 60105;
    case 3: return 60127;
    default: return 60106;
    }
}

int ULinkThread::stationErrorBit(int portNumber, int station)
{
    if (portNumber < 1 || portNumber > 4 || station < 0 || station > 255)
        return -1;
    return kStationErrorBase + (portNumber - 1) * 256 + station;
}

// Serial links report on their COM number; network and CAN links share port 0.
int ULinkThread::portNumber() const
{
    return (m_commType == 0 || m_commType == 1) ? comNumber(m_link) : 0;
}

void ULinkThread::writeStatusBit(int address, int value)
{
    uchar bit = static_cast<uchar>(value);
    communication::getInstance()->setCommValue("LB", "LB", address, 0, 1, &bit);
}

void ULinkThread::setSpeAddrComError(bool ok)
{
    int value = ok ? 0 : 1;
    int bit = comErrorBit(portNumber());
    if (m_statusShadow.value(bit, -1) == value)
        return;
    m_statusShadow[bit] = value;
    writeStatusBit(bit, value);
    if (m_errorCB)
        m_errorCB(m_linkId, ok ? LinkRecovered : LinkFailed, QString());
}

void ULinkThread::setSpeAddrStationError(const QString &stationText, bool ok)
{
    bool isNumber = false;
    int station = stationText.trimmed().toInt(&isNumber);
    if (!isNumber || station < 0 || station > 255)
        return;
    int value = ok ? 0 : 1;
    int bit = stationErrorBit(portNumber(), station);
    int key = bit >= 0 ? bit : kStationShadowBase - station;
    if (m_statusShadow.value(key, -1) == value)
        return;
    m_statusShadow[key] = value;
    if (bit >= 0)
        writeStatusBit(bit, value);
    if (m_errorCB)
        m_errorCB(m_linkId, ok ? StationRecovered : StationFailed, QString::number(station));
}
