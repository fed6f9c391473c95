// Values through the driver: reads with their quality, writes that wait for
// the device, and the address calls of the link manager. None of them takes
// the port mutex, so they never wait for the link thread's exchange.
#include "ulinkthread.h"

#include "device_comm/ctext.h"
#include "generalFunc/globals.h"

#include <QElapsedTimer>

#include <cstring>

#undef LUMBRA_LOG_FILE
#define LUMBRA_LOG_FILE "device_comm/src/ulinkthread.cpp"

int ULinkThread::AddressMerge(std::vector<KEY_ADDRESS> &list)
{
    return m_driver ? m_driver->AddressMerge(list) : -1;
}

int ULinkThread::getAddrIndexFromStr(const QString &reg, const QString &addr, int station, int mode)
{
    if (!m_driver)
        return -1;
    QString text = addr;
    if (!addr.contains('.') && mode == 0)
        text += ".0";
    int index = -1;
    int rc = m_driver->CheckAddressValidity(reg, text, index, station, mode);
    if (rc == LUMBRA_ADDR_RETRY_PLAIN && text != addr)
        rc = m_driver->CheckAddressValidity(reg, addr, index, station, mode);
    return rc == LUMBRA_ADDR_OK ? index : -1;
}

int ULinkThread::GetValue(int station, const QString &reg, int addr, int count, int kind, uchar *data, int len,
                          int *quality)
{
    return m_driver ? m_driver->GetValue(station, reg, addr, count, kind, data, len, quality) : -1;
}

void ULinkThread::GetValues(CLinkDriver::ValueRead *reads, int n)
{
    if (m_driver) {
        m_driver->GetValues(reads, n);
        return;
    }
    for (int i = 0; i < n; ++i)
        reads[i].rc = -1;
}

int ULinkThread::WriteValue(int station, const QString &reg, int addr, int count, int kind, const uchar *data,
                            int len, int waitMs, QString *why)
{
    if (!m_driver) {
        *why = QStringLiteral("no driver");
        return -1;
    }
    int ticket = 0;
    if (m_driver->SetValue(station, reg, addr, count, kind, data, len, &ticket) != 1) {
        *why = QStringLiteral("refused by the driver");
        return -1;
    }
    if (ticket == 0)
        return 1;  // a driver without tickets: queued is all it can say
    QString text;
    int state = awaitWrite(ticket, waitMs, &text);
    if (state == LUMBRA_WRITE_PENDING) {
        m_driver->CancelWrite(ticket);
        // The answer may have come between the last look and the cancel.
        state = m_driver->WriteState(ticket, &text);
        if (state != LUMBRA_WRITE_DONE && (text.isEmpty() || text == QLatin1String("cancelled")))
            text = QString("no reply within %1 ms").arg(waitMs);
    }
    if (state == LUMBRA_WRITE_DONE)
        return 1;
    *why = text.isEmpty() ? QStringLiteral("failed") : text;
    return -1;
}

// Looks at the write after each exchange of the link thread until it is no
// longer pending or waitMs have passed.
int ULinkThread::awaitWrite(int ticket, int waitMs, QString *text)
{
    int state = LUMBRA_WRITE_PENDING;
    awaitExchanges(waitMs, [&] {
        state = m_driver->WriteState(ticket, text);
        return state != LUMBRA_WRITE_PENDING;
    });
    return state;
}

int ULinkThread::AwaitValue(int station, const QString &reg, int addr, int count, int kind, uchar *data, int len,
                            int *quality, int waitMs)
{
    int rc = GetValue(station, reg, addr, count, kind, data, len, quality);
    if (rc < 0 || *quality != LUMBRA_QUALITY_NOT_READ || waitMs <= 0)
        return rc;
    requestRead(station, reg, addr, count);
    awaitExchanges(waitMs, [&] {
        rc = GetValue(station, reg, addr, count, kind, data, len, quality);
        return rc < 0 || *quality != LUMBRA_QUALITY_NOT_READ;
    });
    return rc;
}

// A driver that reads on request has the value after the exchange in
// progress and its own; the others reach it on their pass over the poll plan.
void ULinkThread::requestRead(int station, const QString &reg, int addr, int count)
{
    KEY_ADDRESS k;
    std::memset(&k, 0, sizeof k);
    lumbra::copyCText(k.link, sizeof k.link, m_linkName);
    lumbra::copyCText(k.reg, sizeof k.reg, reg);
    k.station = station;
    k.index = addr;
    k.len = count;
    m_driver->AddConditionRead(&k, 1);
}

// Asks settled() after each exchange of the link thread until it holds or
// waitMs have passed.
void ULinkThread::awaitExchanges(int waitMs, const std::function<bool()> &settled)
{
    QElapsedTimer clock;
    clock.start();
    ++m_exchangeWaiters;
    QMutexLocker lock(&m_exchangeMutex);
    for (;;) {
        const qint64 left = waitMs - clock.elapsed();
        if (settled() || left <= 0 || m_stopRequested)
            break;
        m_exchanged.wait(&m_exchangeMutex, static_cast<unsigned long>(left));
    }
    lock.unlock();
    --m_exchangeWaiters;
}

// Called by the link thread after every exchange; costs nothing while no
// one waits for a write or a value.
void ULinkThread::exchangeDone()
{
    if (m_exchangeWaiters.load() == 0)
        return;
    QMutexLocker lock(&m_exchangeMutex);
    m_exchanged.wakeAll();
}
