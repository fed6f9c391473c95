// How stored history rows reach the platform: one batch in flight per group,
// each remembering the rows it carried, so that the group's acknowledgement
// deletes exactly those rows whatever happened to the table in between.
// Groups go independently: one that the platform never acknowledges keeps
// its own batch and holds back no other.
#pragma once

#include "generalFunc/logthrottle.h"

#include <QElapsedTimer>
#include <QMap>
#include <QStringList>
#include <QVector>

class SQLiteDB;

// Not locked: the history service calls it under its own mutex.
class HisDelivery {
public:
    // Rows a batch carries at most.
    static constexpr int kBatchRows = 300;
    // A batch without an answer goes again after this (or at once when the
    // cloud comes back).
    static constexpr qint64 kResendMs = 10000;
    // How long a group waits, after the acknowledgement of a batch sent more
    // than once, for the acknowledgements of the other copies.
    static constexpr qint64 kSettleMs = 2000;

    HisDelivery();
    void setStore(SQLiteDB *db) { m_db = db; }

    // Posts a batch for every group that has rows and nothing in flight, and
    // the batch in flight again where it is due. False when the outbox
    // refused one (the cloud went down): the pass is to be made again.
    bool sendPass(const QMap<unsigned, QStringList> &labels, bool zip);
    // The platform acknowledged the group's batch: deletes its rows. The
    // number deleted, or -1 when there was no batch to take.
    int ack(unsigned groupId);
    // A pass has work: a batch to send again, or a group whose wait ended.
    bool passDue();

    // Rows up to lastRowid were pruned: no batch may delete them again, as
    // their rowids can come back for new rows the platform never saw.
    void forgetUpTo(qint64 lastRowid);
    // The group's rows were all deleted.
    void drop(unsigned groupId);

private:
    struct Batch {
        QVector<qint64> rowids;
        int posts = 0;
        qint64 lastPostMs = 0;
        quint64 upCount = 0;  // the outbox's count at the last post
    };
    struct Settle {
        qint64 untilMs = 0;
        int acksLeft = 0;
    };

    bool due(const Batch &b) const;
    bool settling(unsigned groupId);
    // The group after `after` in id order that has rows; false past the last.
    bool nextGroup(qint64 after, qint64 *groupId);
    // rowid, data, time of each row to send for the group.
    bool selectRows(unsigned groupId, const Batch *inFlight, QStringList *cells);
    bool sendGroup(unsigned groupId, const QStringList &labels, bool zip);

    SQLiteDB *m_db = nullptr;
    QElapsedTimer m_clock;
    QMap<unsigned, Batch> m_batches;
    QMap<unsigned, Settle> m_settles;
    lumbra::LogThrottle m_unmatchedLog;
};
