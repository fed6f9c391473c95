#include "addressjson.h"

#include "communication.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/jsonvalue.h"


namespace lumbra {

int lengthForType(int dataType, int totalDigits, int configured)
{
    switch (dataType) {
    case VALUE_U32:
    case VALUE_S32:
    case VALUE_BCD32:
    case VALUE_FLOAT:
        return 2;
    case VALUE_STRING:
        return totalDigits / 2;
    default:
        return configured;
    }
}

AddressInfo addressFromJson(const QJsonObject &a, int dataType, int totalDigits)
{
    AddressInfo info;
    info.link = jsonText(a.value("link"));
    info.reg = jsonText(a.value("block"));
    info.addr = jsonText(a.value("no"));
    info.station = jsonInt(a.value("sta"));
    info.type = jsonInt(a.value("type"));
    info.length = lengthForType(dataType, totalDigits, jsonInt(a.value("length")));
    const int isWord = dataType == VALUE_BIT ? 0 : 1;
    info.index = communication::getInstance()->getIndexFromAddr(info.link, info.reg, info.addr, info.station, isWord);
    return info;
}

// Repeats are left to the table, which drops them when it hands a link's
// addresses to the driver; the strings are shared with the caller's.
void registerExternalAddrs(const QVector<AddressInfo> &addrs, int consumer)
{
    QVector<ExternalAddr> keys;
    keys.reserve(addrs.size());
    for (const AddressInfo &a : addrs) {
        if (communication::getLocalIndex(a.reg) == -1)
            keys.append(ExternalAddrTable::makeAddr(a.link, a.reg, a.addr, a.station, a.length, a.type, a.index));
    }
    // Even an empty list: what the consumer no longer reads stops being polled.
    communication::getInstance()->setExternalAddrs(std::move(keys), consumer);
}

void registerExternalAddrs(const QList<AddressInfo> &addrs, int consumer)
{
    registerExternalAddrs(addrs.toVector(), consumer);
}

}  // namespace lumbra
