// A Modbus TCP link "PLC1" to a slave on 127.0.0.1, as the link file holds it.
#pragma once

#include <QString>

namespace lumbra::test {

// One object of the link file's "data" array.
QString tcpLinkJson(int port, int commTimeMs = 0);

// Writes a link file with that one link below workPath/iotRunTime and copies
// the built Modbus TCP driver beside it.
void writeTcpLink(const QString &workPath, const QString &driverFile, int port, int commTimeMs = 5);

}  // namespace lumbra::test
