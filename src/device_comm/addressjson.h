// Device addresses as the data services' configuration files write them
// ("data_readAddress", "triggerAddress"), and their registration for polling.
#pragma once

#include "addressinfo.h"

#include <QJsonObject>
#include <QList>
#include <QVector>

namespace lumbra {

// Words an address of dataType spans: fixed where the type fixes it, else
// the configured length.
int lengthForType(int dataType, int totalDigits, int configured);

// The keys "link", "block", "no", "sta", "type" and "length" of a, for a
// value of dataType (lengthForType), with its link-local index resolved
// through the link manager.
AddressInfo addressFromJson(const QJsonObject &a, int dataType, int totalDigits = 0);

// Hands every address that is no local register to the link manager for
// polling on behalf of consumer (an ExternalAddrType), each one once.
void registerExternalAddrs(const QList<AddressInfo> &addrs, int consumer);
void registerExternalAddrs(const QVector<AddressInfo> &addrs, int consumer);

}  // namespace lumbra
