#include "writer.h"

#include "platformlog.h"

#include <QDateTime>

#include <chrono>

namespace platform {
namespace {

const size_t kBatchMessages = 500;
const int kIdleWaitMs = 200;
const qint64 kPruneEveryMs = 3600 * 1000;
const qint64 kFirstPruneMs = 60 * 1000;
const qint64 kDropReportMs = 10 * 1000;

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

void sleepMs(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

}  // namespace

Writer::Writer(std::unique_ptr<DbConn> db, IngestQueue &queue, WriteMatcher writes, Publish publish, Notify notify,
               int retentionDays)
    : m_db(std::move(db)), m_store(*m_db, std::move(writes)), m_queue(queue), m_publish(std::move(publish)),
      m_notify(std::move(notify)), m_retentionDays(retentionDays)
{
}

Writer::~Writer()
{
    stop();
}

void Writer::start()
{
    m_nextPruneMs = nowMs() + kFirstPruneMs;
    m_thread = std::thread([this] { run(); });
}

void Writer::stop()
{
    m_queue.close();
    if (m_thread.joinable())
        m_thread.join();
}

void Writer::run()
{
    for (;;) {
        std::vector<Inbound> batch = m_queue.take(kBatchMessages, kIdleWaitMs);
        if (batch.empty() && m_queue.closed())
            break;
        if (!batch.empty()) {
            m_stats.messages += batch.size();
            storeBatch(batch);
        }
        // Also under steady traffic, which never leaves the queue empty.
        pruneWhenDue();
        reportDrops();
    }
    reportDrops();
}

void Writer::storeBatch(std::vector<Inbound> &batch)
{
    for (;;) {
        if (tryStore(batch, 5))
            return;
        if (m_db->fault() == DbFault::Connection) {
            if (!waitForDatabase()) {
                PLOG_WARN("stopping with the database away: %zu messages not stored (not acknowledged either, so "
                          "the gateways send their history and alarms again)",
                          batch.size());
                return;
            }
            continue;
        }
        break;  // the content itself was refused
    }
    if (batch.size() == 1) {
        const Inbound &m = batch.front();
        PLOG_WARN("database refused a message from %s (%s), dropped: %s", m.serial.toUtf8().constData(),
                  m.prefix.constData(), m_db->error().toUtf8().constData());
        ++m_stats.dropped;
        return;
    }
    // One bad message must not hold up the rest: store them one by one.
    for (Inbound &m : batch) {
        std::vector<Inbound> one;
        one.push_back(std::move(m));
        storeBatch(one);
    }
}

bool Writer::tryStore(const std::vector<Inbound> &batch, int attempts)
{
    for (int i = 0; i < attempts; ++i) {
        BatchOutcome outcome;
        if (m_store.store(batch, &outcome)) {
            ++m_stats.batches;
            m_stats.stored += batch.size();
            deliver(outcome);
            return true;
        }
        if (m_db->fault() != DbFault::Retry)
            return false;
        // Another instance holds what this batch needs; try again shortly.
        sleepMs(20 * (i + 1));
    }
    return false;
}

void Writer::deliver(const BatchOutcome &outcome)
{
    m_stats.historyStored += outcome.historyStored;
    m_stats.historyDuplicates += outcome.historyDuplicates;
    m_stats.alarmsStored += outcome.alarmsStored;
    m_stats.alarmDuplicates += outcome.alarmDuplicates;
    for (const Outgoing &ack : outcome.acks)
        m_publish(ack);
    if (!m_store.markAcked(outcome.alarmIds))
        PLOG_WARN("cannot mark %zu alarm events acknowledged: %s", outcome.alarmIds.size(),
                  m_db->error().toUtf8().constData());
    for (const Change &c : outcome.changes)
        m_notify(c);
}

// Retries the connection with a back-off up to 10 s; false when told to stop.
bool Writer::waitForDatabase()
{
    m_stats.databaseUp = false;
    PLOG_ERROR("database connection lost (%s): holding the batch until it is back",
               m_db->error().toUtf8().constData());
    int delayMs = 500;
    while (!m_queue.closed()) {
        sleepMs(delayMs);
        if (m_db->reconnect()) {
            m_store.forgetGateways();
            m_stats.databaseUp = true;
            PLOG_INFO("database connection back");
            return true;
        }
        delayMs = std::min(delayMs * 2, 10000);
    }
    return false;
}

void Writer::pruneWhenDue()
{
    if (m_retentionDays <= 0 || nowMs() < m_nextPruneMs)
        return;
    m_nextPruneMs = nowMs() + kPruneEveryMs;
    const qint64 before = nowMs() / 1000 - qint64(m_retentionDays) * 86400;
    const qint64 n = m_store.prune(before);
    if (n < 0)
        PLOG_WARN("retention: pruning failed: %s", m_db->error().toUtf8().constData());
    else if (n > 0)
        PLOG_INFO("retention: %lld history rows and alarm events older than %d days deleted",
                  static_cast<long long>(n), m_retentionDays);
}

void Writer::reportDrops()
{
    const quint64 n = m_queue.takeDropped();
    m_stats.dropped += n;
    m_heldDrops += n;
    if (m_heldDrops == 0 || nowMs() < m_nextDropReportMs)
        return;
    m_nextDropReportMs = nowMs() + kDropReportMs;
    PLOG_WARN("store behind: %llu messages dropped from a full queue (the gateways resend history and alarms)",
              static_cast<unsigned long long>(m_heldDrops));
    m_heldDrops = 0;
}

}  // namespace platform
