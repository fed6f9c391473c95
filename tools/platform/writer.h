// The one thread that writes: takes what the MQTT side queued, stores it in
// batches, and only after the commit sends the acknowledgements and tells
// the console. A database that goes away keeps the batch in hand (nothing is
// acknowledged) until it is back.
#pragma once

#include "ingestqueue.h"
#include "storewriter.h"

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

namespace platform {

struct WriterStats {
    std::atomic<quint64> messages{0};  // taken from the queue
    std::atomic<quint64> stored{0};    // of those, committed
    std::atomic<quint64> batches{0};
    std::atomic<quint64> historyStored{0};
    std::atomic<quint64> historyDuplicates{0};
    std::atomic<quint64> alarmsStored{0};
    std::atomic<quint64> alarmDuplicates{0};
    std::atomic<quint64> dropped{0};  // malformed for the database, or the queue was full
    std::atomic<bool> databaseUp{true};
};

class Writer {
public:
    using Publish = std::function<void(const Outgoing &)>;
    using Notify = std::function<void(const Change &)>;

    Writer(std::unique_ptr<DbConn> db, IngestQueue &queue, WriteMatcher writes, Publish publish, Notify notify,
           int retentionDays);
    ~Writer();
    void start();
    // Stores what is queued, then ends.
    void stop();
    const WriterStats &stats() const { return m_stats; }

private:
    void run();
    void storeBatch(std::vector<Inbound> &batch);
    bool tryStore(const std::vector<Inbound> &batch, int attempts);
    void deliver(const BatchOutcome &outcome);
    bool waitForDatabase();
    void pruneWhenDue();
    void reportDrops();

    std::unique_ptr<DbConn> m_db;
    StoreWriter m_store;
    IngestQueue &m_queue;
    Publish m_publish;
    Notify m_notify;
    int m_retentionDays;
    qint64 m_nextPruneMs = 0;
    qint64 m_nextDropReportMs = 0;
    quint64 m_heldDrops = 0;
    WriterStats m_stats;
    std::thread m_thread;
};

}  // namespace platform
