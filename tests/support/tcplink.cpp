#include "tcplink.h"

#include "testsupport.h"

namespace lumbra::test {

QString tcpLinkJson(int port, int commTimeMs)
{
    return QString(R"({"link_name":"PLC1","link_type":"Ethernet/TCP","link_driver":"modbus_tcp",
        "hmi_ip":"127.0.0.1","hmi_port":"%1","plc_id":"1","comm_time":%2,"timeout1":200,"retry_times":1})")
        .arg(port)
        .arg(commTimeMs);
}

void writeTcpLink(const QString &workPath, const QString &driverFile, int port, int commTimeMs)
{
    writeFile(workPath + "/iotRunTime/driver/libmodbus_tcp.so", readFile(driverFile));
    writeFile(workPath + "/iotRunTime/LinkConfiguration.json",
              ("{\"data\":[" + tcpLinkJson(port, commTimeMs) + "]}").toUtf8());
}

}  // namespace lumbra::test
