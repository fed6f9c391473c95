// One link's configuration record, as read from LinkConfiguration.json.
#pragma once

#include <QDebug>
#include <QString>
#include <cstdint>

struct LinkValue {
    int32_t id = 0;  // position in the file's "data" array
    QString linkName;
    QString linkType;
    QString link_device;
    QString link_driver;
    QString driver_lib;
    int32_t hmi_position = 0;
    int32_t master_or_slave = 0;
    QString remote_property;
    QString hmi_ip;
    uint16_t hmi_port = 0;
    QString reserved;  // not filled by the file
    uint32_t baudrate = 0;
    uint32_t data_bit = 0;
    QString check_bit;
    uint16_t stop_bit = 0;
    uint16_t screen_id = 0;
    uint16_t plc_id = 0;
    int32_t serial_comm_protocol = 0;
    int32_t comm_time = 0;
    int32_t timeout1 = 0;
    int32_t timeout2 = 0;
    int32_t retry_times = 0;
    int32_t address_mode = 0;
    int32_t address_step = 0;
    int32_t data_conver = 0;
    QString station_no_comm;
    QString driver_property;
    QString station_data_conver;
};

QDebug operator<<(QDebug dbg, const LinkValue &link);
