#include "linkvalue.h"

QDebug operator<<(QDebug dbg, const LinkValue &link)
{
    QDebugStateSaver saver(dbg);
    dbg.noquote().nospace() << "=============\n"
                            << "id:" << link.id << "\n"
                            << "linkName:" << link.linkName << "\n"
                            << "linkType:" << link.linkType << "\n"
                            << "link_driver:" << link.link_driver << "\n"
                            << "master_or_slave:" << link.master_or_slave << "\n"
                            << "comm_time:" << link.comm_time << "\n"
                            << "timeout1:" << link.timeout1 << "\n"
                            << "retry_times:" << link.retry_times << "\n"
                            << "data_conver:" << link.data_conver << "\n"
                            << "plc_id:" << link.plc_id << "\n"
                            << "driver_property:" << link.driver_property << "\n"
                            << "baudrate:" << link.baudrate << "\n"
                            << "data_bit:" << link.data_bit << "\n"
                            << "check_bit:" << link.check_bit << "\n"
                            << "stop_bit:" << link.stop_bit << "\n"
                            << "ip:" << link.hmi_ip << "\n"
                            << "port:" << link.hmi_port << "\n"
                            << "=============";
    return dbg;
}
