// What the cloud's online edits of real-time points, history groups and
// alarms share: the message's shape, its acknowledgement, and the renewal of
// the addresses that the link threads poll for a service.
#pragma once

#include "device_comm/addressinfo.h"

#include <QJsonObject>
#include <QString>

#include <functional>

namespace lumbra::online {

enum class Operation { Add, Modify, Delete, Unknown };

// The message as an object; false, with the parser's complaint logged, for
// anything else.
bool parseMessage(const QString &payload, QJsonObject *msg);

// A register of the box itself needs no polling; any other address does.
bool isExternal(const AddressInfo &a);

// One service's side of an edit.
struct Target {
    const char *ackTopic;
    const char *kind;  // "RTD", "His", "Alarm": names the logged id list
    // Applies one object of "data" live and gives its id; true when an
    // address that the link threads poll came or went.
    std::function<bool(const QJsonObject &item, Operation op, QString *id)> put;
    // Removes one id live; same result as put.
    std::function<bool(int id)> remove;
};

// Applies the add, modify or delete of msg through target and acknowledges
// it; an unknown operation is logged and changes nothing. *op gets the
// operation. True when the service's external addresses must be registered
// again.
bool applyEdit(const QJsonObject &msg, const Target &target, Operation *op);

// For a service that has work after an edit: registers its addresses again
// when renew is set (through externalAddr) and lets the link threads poll them.
void renewExternal(bool renew, const std::function<bool()> &externalAddr);

}  // namespace lumbra::online
