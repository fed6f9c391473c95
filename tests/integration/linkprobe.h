// Reads values back the way panels and services do, for link tests.
#pragma once

#include "device_comm/communication.h"

#include <cstdint>

namespace lumbra::test {

// A local status bit (LB); 0xFF when it cannot be read.
inline int localBit(int addr)
{
    uchar v = 0xFF;
    communication::getInstance()->getCommValue("LB", "LB", addr, 0, 1, &v);
    return v;
}

// One holding register of station 1 on a link, by its registered index.
inline uint16_t holdingWord(const QString &link, int index)
{
    uint16_t v = 0;
    communication::getInstance()->getCommValue(link, "4X", index, 1, 1, reinterpret_cast<uchar *>(&v));
    return v;
}

}  // namespace lumbra::test
