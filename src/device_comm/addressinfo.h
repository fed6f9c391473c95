// A device address as the data services hold it, and the edit operations
// that the online configuration applies to their records.
#pragma once

#include <QString>

struct AddressInfo {
    QString link;      // link name
    QString reg;       // register (block) name
    QString addr;      // register number as configured
    int index = -1;    // the link-local index, -1 while unresolved
    int station = 0;
    int length = 1;    // in words (cells for bits)
    int type = 0;      // the address's type as configured
};

enum AddrOpt { ADDR_ADD = 0, ADDR_DELETE = 1, ADDR_MODIFY = 2 };
