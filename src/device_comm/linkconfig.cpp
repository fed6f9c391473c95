#include "linkconfig.h"

#include "generalFunc/boxpath.h"
#include "generalFunc/globals.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <limits>

namespace lumbra {
namespace {

const char *const kLinkFile = "./iotRunTime/LinkConfiguration.json";

// The platform writes numbers as strings in some keys and as numbers in
// others; accept both wherever a key holds a number.
QString textOf(const QJsonValue &v)
{
    if (v.isDouble())
        return QString::number(static_cast<qint64>(v.toDouble()));
    return v.toString();
}

int intOf(const QJsonValue &v)
{
    return v.isDouble() ? v.toInt() : v.toString().trimmed().toInt();
}

// Unsigned of T's width in base 10; 0 when it does not convert or fit.
template <typename T>
T unsignedOf(const QJsonValue &v)
{
    bool ok = false;
    qulonglong n = textOf(v).trimmed().toULongLong(&ok, 10);
    return ok && n <= std::numeric_limits<T>::max() ? static_cast<T>(n) : 0;
}

LinkValue recordOf(const QJsonObject &o, int id)
{
    LinkValue l;
    l.id = id;
    l.linkName = o["link_name"].toString();
    l.linkType = o["link_type"].toString();
    l.link_device = o["link_device"].toString();
    l.link_driver = o["link_driver"].toString();
    l.hmi_position = intOf(o["hmi_position"]);
    l.driver_lib = o["driver_lib"].toString();
    l.remote_property = o["remote_property"].toString();
    l.hmi_ip = o["hmi_ip"].toString();
    l.hmi_port = unsignedOf<uint16_t>(o["hmi_port"]);
    l.master_or_slave = intOf(o["master_or_slave"]);
    l.baudrate = unsignedOf<uint32_t>(o["baudrate"]);
    l.data_bit = unsignedOf<uint32_t>(o["data_bit"]);
    l.check_bit = o["check_bit"].toString();
    l.stop_bit = unsignedOf<uint16_t>(o["stop_bit"]);
    l.screen_id = unsignedOf<uint16_t>(o["screen_id"]);
    l.plc_id = unsignedOf<uint16_t>(o["plc_id"]);
    l.serial_comm_protocol = intOf(o["serial_comm_protocol"]);
    l.comm_time = intOf(o["comm_time"]);
    l.timeout1 = intOf(o["timeout1"]);
    l.timeout2 = intOf(o["timeout2"]);
    l.retry_times = intOf(o["retry_times"]);
    l.address_mode = intOf(o["address_mode"]);
    l.address_step = intOf(o["address_step"]);
    l.data_conver = intOf(o["data_conver"]);
    l.station_data_conver = textOf(o["station_data_conver"]);
    l.station_no_comm = textOf(o["station_no_comm"]);
    l.driver_property = o["driver_property"].toString();
    return l;
}

void printRecord(const LinkValue &link)
{
    QString text;
    QDebug(&text) << link;
    zlog_debug(g_zlog, "%s", text.toLocal8Bit().constData());
}

}  // namespace

void stageDriver(const LinkValue &link)
{
    if (link.link_driver.isEmpty())
        return;
    QString src = "./iotRunTime/driver/lib" + link.link_driver + ".so";
    QString dst = boxPath("/usr/brenta/project/driver/lib") + QString("%1_%2.so").arg(link.link_driver).arg(link.id);
    if (!QFile::exists(src) || QFile::exists(dst))
        return;
    QDir().mkpath(QFileInfo(dst).path());
    if (!QFile::copy(src, dst))
        zlog_error(g_zlog, "driver copy failed:%s", src.toLocal8Bit().constData());
}

void readLinkValues(QList<LinkValue> &links)
{
    QFile file(kLinkFile);
    if (!file.exists()) {
        zlog_info(g_zlog, "iot link No such file");
        return;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        zlog_info(g_zlog, "iot link File opening failed");
        return;
    }
    QJsonParseError err;
    QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &err);
    if (err.error != QJsonParseError::NoError || !doc.isObject()) {
        zlog_info(g_zlog, "iot link File parsing failed");
        return;
    }
    const QJsonArray data = doc.object()["data"].toArray();
    for (int i = 0; i < data.size(); ++i) {
        LinkValue link = recordOf(data[i].toObject(), i);
        printRecord(link);
        links.append(link);
        stageDriver(link);
    }
}

}  // namespace lumbra
