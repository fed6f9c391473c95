// The exchanges a link thread runs each turn, always with the port mutex held.
#include "ulinkthread.h"

#include "generalFunc/globals.h"
#include "ulinkport.h"

#include <QDateTime>
#include <QElapsedTimer>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "device_comm/src/ulinkthread.cpp"

namespace {

const int kFailurePauseMs = 1000;
const int kIec104SilenceLimitMs = 20000;
// Slaves need a moment to act on a broadcast before the next request.
const int kTurnaroundMs = 100;

}  // namespace

int ULinkThread::fetchSendFrame()
{
    m_sendFrame.len = 0;
    const int rc = m_driver->GetSendFrame(m_sendFrame);
    if (rc <= 0 || m_sendFrame.len < 1 || m_sendFrame.len >= LUMBRA_FRAME_SIZE)
        return 0;
    return rc == LUMBRA_FRAME_NO_REPLY ? LUMBRA_FRAME_NO_REPLY : 1;
}

int ULinkThread::sendFrame()
{
    return m_port->Send(reinterpret_cast<const char *>(m_sendFrame.data), m_sendFrame.len);
}

int ULinkThread::dealFrame(const QByteArray &frame, QString &text)
{
    const int result = m_driver->DealRecvFrame(frame, text);
    if (result != LUMBRA_RESULT_NEED_MORE)
        exchangeDone();
    return result;
}

// False when the driver had nothing to send.
bool ULinkThread::deal_Protocol()
{
    QByteArray stale;
    m_port->Recv(stale, 0);
    const int frame = fetchSendFrame();
    if (!frame)
        return false;
    m_recvBuf.clear();
    if (sendFrame() < 0) {
        exchangeLost();
        m_port->Reset();
        setSpeAddrComError(false);
        pause(kFailurePauseMs);
        return true;
    }
    if (frame == LUMBRA_FRAME_NO_REPLY) {
        exchangeDone();  // a broadcast write is done once it went out
        pause(qMin(kTurnaroundMs, m_replyTimeout));
        return true;
    }
    int result = 0;
    QString text;
    if (!awaitReply(&result, &text))
        return true;
    if (result != LUMBRA_RESULT_NEW_PORT_SETUP)
        m_station = text;
    actOnMasterResult(result);
    dealRecvFrameResult(result, text);
    return true;
}

// Hands the driver what came back, again with every new piece while it asks
// for more, until the reply time-out counted from the send has passed; then
// once with nothing, which means no reply. False when the port failed.
bool ULinkThread::awaitReply(int *result, QString *text)
{
    QElapsedTimer sent;
    sent.start();
    for (;;) {
        const qint64 before = sent.elapsed();
        const int left = static_cast<int>(qMax<qint64>(0, m_replyTimeout - before));
        int n = m_port->Recv(m_recvBuf, left);
        // A UDP client reports silence as a failure; after the first
        // datagram of a reply it only means that no more came.
        if (n < 0 && m_commType == ULinkPort::PORT_UDP_CLIENT && !m_recvBuf.isEmpty())
            n = 0;
        if (n < 0) {
            replyFailed();
            return false;
        }
        if (n > 0 && (*result = dealFrame(m_recvBuf, *text)) != LUMBRA_RESULT_NEED_MORE)
            return true;
        if (sent.elapsed() >= m_replyTimeout)
            break;
        if (n == 0 && sent.elapsed() == before)
            QThread::msleep(1);  // a port that does not wait must not make us spin
    }
    // What came stays in the buffer: a peer that said something is not a
    // peer that is gone (actOnMasterResult).
    *result = dealFrame(QByteArray(), *text);
    return true;
}

// The port failed before a reply could come. The driver must hear of it as
// an exchange without a reply, or it would send the request again for ever
// without counting a failure, and its values would stay current.
void ULinkThread::exchangeLost()
{
    QString text;
    dealFrame(QByteArray(), text);
}

void ULinkThread::replyFailed()
{
    exchangeLost();
    m_port->Reset();
    pause(kFailurePauseMs);
    setSpeAddrComError(false);
    setSpeAddrStationError(m_station, false);
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
    int result = dealFrame(m_recvBuf, text);
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
    int result = dealFrame(request, text);
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
        m_apdus.clear();
        pause(kFailurePauseMs);
        m_driver->SetValue(0, QString(), 0, 0, nullptr, 1);  // connection restarted
    }
    if (fetchSendFrame())
        setSpeAddrComError(sendFrame() >= 1);
    m_recvBuf.clear();
    if (m_port->Recv(m_recvBuf, m_replyTimeout) > 0) {
        m_apdus.append(m_recvBuf);
        dealApdus(true);
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

// Every complete APDU to the driver. A server sends each answer as soon as
// the driver has one, since it answers them one by one; a client reports the
// link from each and sends on its next turn.
void ULinkThread::dealApdus(bool client)
{
    QByteArray apdu;
    while (m_apdus.next(&apdu)) {
        QString text;
        const int result = dealFrame(apdu, text);
        if (client)
            setSpeAddrComError(result != LUMBRA_RESULT_INCOMPLETE);
        else if (fetchSendFrame() && m_sendFrame.len > 3)
            sendFrame();
    }
}

// IEC 104 server: one turn per accepted connection. A new connection starts
// a new byte stream, so what was held of the old one goes.
void ULinkThread::deal_104_msg()
{
    m_recvBuf.clear();
    int n = m_port->Recv(m_recvBuf, m_replyTimeout);
    qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (m_last104Rx == 0)
        m_last104Rx = now;
    if (n < 0)
        m_apdus.clear();
    if (n <= 0) {
        if (now - m_last104Rx >= kIec104SilenceLimitMs) {
            m_driver->SetValue(0, QString(), 0, 0, nullptr, 1);
            m_last104Rx = now;
        }
        return;
    }
    m_last104Rx = now;
    m_apdus.append(m_recvBuf);
    dealApdus(false);
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
