// How stored alarm events reach the platform: the oldest row goes out, one
// at a time, and stays the message in flight, under the same request id,
// until the platform acknowledges that id. Sent again every 3 s without an
// answer, and at once when the cloud comes back; never replaced by a newer
// event while in flight, so an alarm that flaps faster than the platform
// answers still has every event acknowledged in turn.
#pragma once

#include "generalFunc/logthrottle.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QString>

class SQLiteDB;

class AlarmDelivery {
public:
    static constexpr qint64 kResendMs = 3000;

    AlarmDelivery();
    // The store the rows are in; set once, before any other call.
    void setStore(SQLiteDB *db) { m_db = db; }

    // Sends the oldest row when nothing is in flight, or the message in
    // flight again when it is due. Nothing while the cloud is down.
    void pump(bool compress);
    // The platform acknowledged reqId: when it names the message in flight
    // its row is deleted and the next goes at once. Anything else is logged
    // and deletes nothing. True when a row was deleted.
    bool ack(unsigned reqId, bool compress);

    // A row was stored; returns the rows now believed to be in the table.
    unsigned added();
    // Deletes the n oldest rows, the one in flight among them.
    bool prune(int n);
    // Counts the rows again (the belief drifts when a statement fails).
    void recount();
    unsigned rows() const;

private:
    struct InFlight {
        bool active = false;
        bool posted = false;   // the outbox took it at least once
        qint64 rowid = 0;
        unsigned reqId = 0;
        QString topic;
        QString text;
        bool zip = false;
        qint64 postedAtMs = 0;
        quint64 upCount = 0;   // the outbox's count when it was last posted
    };

    // Called with m_mutex held.
    bool takeOldest(bool compress);
    bool due() const;
    void post();
    unsigned nextId();

    mutable QMutex m_mutex;
    SQLiteDB *m_db = nullptr;
    QElapsedTimer m_clock;
    InFlight m_flight;
    unsigned m_lastId;
    unsigned m_rows = 0;
    lumbra::LogThrottle m_unmatchedLog;
    lumbra::LogThrottle m_emptyLog;
};
