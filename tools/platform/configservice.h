// Answers the gateways' configuration requests from a folder holding one
// folder per serial number with the six files of "./iotRunTime/". A box
// with an empty "./iotRunTime/" so configures itself on first contact.
//
// Each file is stamped with its "last_updata_time" when it has one, else with
// its modification time; a gateway that asks with the same stamp is told
// "nothing newer" ("1"), one with another stamp (or "-1", no copy) gets the
// file with the stamp in it. A kind without a file is answered "1" too, so
// the gateway moves on to the next kind and keeps what it has.
#pragma once

#include "storewriter.h"  // Outgoing

#include <QHash>
#include <QJsonObject>
#include <QSet>
#include <QString>

#include <mutex>
#include <vector>

namespace platform {

class ConfigService {
public:
    explicit ConfigService(const QString &dir);
    QString dir() const { return m_dir; }

    // The answer to a request of kind (0 links ... 5 forwarding servers)
    // from serial, addressed under prefix; false (logged) when the request is
    // malformed and should go unanswered.
    bool answer(const QString &serial, const QByteArray &prefix, int kind, const QByteArray &request, Outgoing *out);

    // The gateway's file of that kind as an object; empty when it has none.
    QJsonObject file(const QString &serial, int kind) const;
    // Display names of the real-time points by code.
    QHash<int, QString> pointNames(const QString &serial) const;
    // Where a point's value sits in the history rows: (group id, place in
    // the group's points) for every group that samples code.
    std::vector<std::pair<quint32, int>> historySlots(const QString &serial, int code) const;

private:
    QString path(const QString &serial, int kind) const;

    QString m_dir;
    std::mutex m_mutex;
    QSet<QString> m_toldMissing;  // serials whose missing folder was logged
};

}  // namespace platform
