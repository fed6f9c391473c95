// The exchanges a link thread runs each turn, always with the port mutex held.
#include "ulinkthread.h"

#include "generalFunc/globals.h"
#include "ulinkport.h"

#include <QDateTime>

namespace {

const int kFailurePauseMs = 1000;
const int kIec104SilenceLimitMs = 20000;

}  // namespace

bool ULinkThread::fetchSendFrame()
{
    m_sendFrame.len = 0;
    if (m_driver->GetSendFrame(m_sendFrame) <= 0)
        return false;
    return m_sendFrame.len >= 1 && m_sendFrame.len < LUMBRA_FRAME_SIZE;
}

int ULinkThread::sendFrame()
{
    return m_port->Send(reinterpret_cast<const char *>(m_sendFrame.data), m_sendFrame.len);
}

// False when the driver had nothing to send.
bool ULinkThread::deal_Protocol()
{
    QByteArray stale;
    m_port->Recv(stale, 0);
    if (!fetchSendFrame())
        return false;
    stale.clear();
    m_port->Recv(stale, 0);
    m_recvBuf.clear();
    if (sendFrame() < 0) {
        m_port->Reset();
        setSpeAddrComError(false);
        pause(kFailurePauseMs);
        return true;
    }
    if (m_port->Recv(m_recvBuf, m_replyTimeout) < 0) {
        m_port->Reset();
        pause(kFailurePauseMs);
        setSpeAddrComError(false);
        setSpeAddrStationError(m_station, false);
        return true;
    }
    QString text;
    int result = m_driver->DealRecvFrame(m_recvBuf, text);
    if (result != LUMBRA_RESULT_NEW_PORT_SETUP)
        m_station = text;
    actOnMasterResult(result);
    dealRecvFrameResult(result, text);
    return true;
}

void ULinkThread::actOnMasterResult(int result)
{
    switch (result) {
    case LUMBRA_RESULT_GOOD:
        setSpeAddrStationError(m_station, true);
        setSpeAddrComError(true);
        break;
    case LUMBRA_RESULT_STATION_FAILED:
        setSpeAddrStationError(m_station, false);
        setSpeAddrComError(false);
        // A TCP peer that said nothing at all has most likely gone away.
        if (m_recvBuf.isEmpty() && m_commType == 4)
            m_port->Reset();
        m_driver->SetDisconnect();
        break;
    case LUMBRA_RESULT_INCOMPLETE:
        m_recvBuf.clear();
        break;
    case LUMBRA_RESULT_EXCHANGE_FAILED:
        setSpeAddrStationError(m_station, false);
        setSpeAddrComError(false);
        m_port->Reset();
        pause(kFailurePauseMs);
        break;
    default:
        break;
    }
}

void ULinkThread::dealRecvFrameResult(int result, const QString &text)
{
    if (result != LUMBRA_RESULT_NEW_PORT_SETUP)
        return;
    zlog_info(g_zlog, "link:%s new port parameters:%s", m_linkName.toLocal8Bit().constData(),
              text.toLocal8Bit().constData());
    m_port->setup(text.toStdString());
}

void ULinkThread::dealSlave()
{
    m_recvBuf.clear();
    int n = m_port->Recv(m_recvBuf, m_replyTimeout);
    if (n < 0) {
        m_port->Reset();
        setSpeAddrComError(false);
        pause(kFailurePauseMs);
        return;
    }
    QString text;
    int result = m_driver->DealRecvFrame(m_recvBuf, text);
    if (n >= 1 && result == LUMBRA_RESULT_SLAVE_REPLY) {
        if (fetchSendFrame())
            sendFrame();
        m_sendFrame.len = 0;
    }
    dealRecvFrameResult(result, text);
}

void ULinkThread::clientRequestCB(void *context, const QByteArray &request, QByteArray *reply)
{
    static_cast<ULinkThread *>(context)->serveClientRequest(request, reply);
}

// A server link's request, on this thread's event loop: the driver answers
// it as a slave does a serial one.
void ULinkThread::serveClientRequest(const QByteArray &request, QByteArray *reply)
{
    QMutexLocker lock(&m_portMutex);
    if (!m_driver || m_suspended)
        return;
    QString text;
    int result = m_driver->DealRecvFrame(request, text);
    if (result == LUMBRA_RESULT_SLAVE_REPLY && fetchSendFrame())
        *reply = QByteArray(reinterpret_cast<const char *>(m_sendFrame.data), m_sendFrame.len);
    m_sendFrame.len = 0;
    if (result == LUMBRA_RESULT_SLAVE_REPLY || result == LUMBRA_RESULT_GOOD)
        setSpeAddrComError(true);
    dealRecvFrameResult(result, text);
}

void ULinkThread::dealIec104Client()
{
    if (m_port->commStatus() == 0) {
        m_port->Reset();
        pause(kFailurePauseMs);
        m_driver->SetValue(0, QString(), 0, 0, nullptr, 1);  // connection restarted
    }
    if (fetchSendFrame())
        setSpeAddrComError(sendFrame() >= 1);
    m_recvBuf.clear();
    if (m_port->Recv(m_recvBuf, m_replyTimeout) > 0) {
        QString text;
        int result = m_driver->DealRecvFrame(m_recvBuf, text);
        setSpeAddrComError(result != LUMBRA_RESULT_INCOMPLETE);
        m_silenceMs = 0;
    } else {
        m_silenceMs += 5;
        if (m_silenceMs > 19999) {
            m_silenceMs = 0;
            m_driver->SetValue(0, QString(), 0, 0, nullptr, 2);  // 20 s of silence
        }
    }
    m_cycleDelay = 5;
}

// IEC 104 server: one turn per accepted connection; replies go out after
// each APDU, since the driver answers them one by one.
void ULinkThread::deal_104_msg()
{
    m_recvBuf.clear();
    int n = m_port->Recv(m_recvBuf, m_replyTimeout);
    qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (m_last104Rx == 0)
        m_last104Rx = now;
    if (n <= 0) {
        if (now - m_last104Rx >= kIec104SilenceLimitMs) {
            m_driver->SetValue(0, QString(), 0, 0, nullptr, 1);
            m_last104Rx = now;
        }
        return;
    }
    m_last104Rx = now;
    int pos = 0;
    while (pos < m_recvBuf.size()) {
        int start = m_recvBuf.indexOf(char(0x68), pos);
        if (start < 0) {
            zlog_info(g_zlog, "%s %d Sticking package parsing error fail return;", __func__, __LINE__);
            return;
        }
        if (start + 1 >= m_recvBuf.size()) {
            zlog_info(g_zlog, "%s %d Sticking package parsing error return;", __func__, __LINE__);
            return;
        }
        int total = 2 + static_cast<uint8_t>(m_recvBuf.at(start + 1));
        if (start + total > m_recvBuf.size()) {
            zlog_info(g_zlog, "%s %d Sticking package parsing error return;", __func__, __LINE__);
            return;
        }
        QString text;
        m_driver->DealRecvFrame(m_recvBuf.mid(start, total), text);
        if (fetchSendFrame() && m_sendFrame.len > 3)
            sendFrame();
        pos = start + total;
    }
}

int ULinkThread::initMPI()
{
    if (!m_driver)
        return -1;
    QByteArray text = m_commConfig.toLocal8Bit();
    return m_driver->mpiInit(text.data(), m_ttyNumber, m_link.plc_id, m_link.screen_id,
                             static_cast<int>(m_link.baudrate), m_replyTimeout, m_link.retry_times);
}

void ULinkThread::dealMPI()
{
    m_driver->mpiDeal();
}
