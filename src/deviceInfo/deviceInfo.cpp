#include "deviceInfo.h"

#include "generalFunc/boxpath.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <sys/utsname.h>

namespace {

const char *const kSnFile = "/usr/brenta/iot_conf/sn.conf";
const char *const kConfigIni = "/usr/brenta/config.ini";
const char *const kNetIni = "/usr/brenta/net_inf.ini";
const char *const k4gInfo = "/tmp/run/4g.info";

QString kernelRelease()
{
    struct utsname u;
    return uname(&u) == 0 ? QString::fromLocal8Bit(u.release) : QString();
}

// The keys of an INI file without groups, as JSON; types follow the keys' meaning.
QJsonObject iniObject(const QString &path, const QStringList &intKeys, const QStringList &textKeys)
{
    QJsonObject obj;
    for (const QString &k : intKeys)
        if (const QVariant v = unitTool::GetIniValue(k, path); v.isValid())
            obj.insert(k, v.toInt());
    for (const QString &k : textKeys)
        if (const QVariant v = unitTool::GetIniValue(k, path); v.isValid())
            obj.insert(k, v.toString());
    return obj;
}

}  // namespace

deviceInfo *deviceInfo::getInstance()
{
    static deviceInfo instance;
    return &instance;
}

void deviceInfo::init()
{
    QString sn = unitTool::ReadFile(lumbra::boxPath(kSnFile), 1);
    if (sn.isEmpty() && QFile::exists(lumbra::boxPath(kSnFile)))
        zlog_info(g_zlog, "serial number file %s is empty",
                  lumbra::boxPath(kSnFile).toLocal8Bit().constData());
    for (const char *f : {kConfigIni, kNetIni, k4gInfo}) {
        QString path = lumbra::boxPath(f);
        if (!QFile::exists(path))
            zlog_info(g_zlog, "file no-exist:%s", path.toLocal8Bit().constData());
    }
    QMutexLocker lock(&m_mutex);
    m_sn = sn;
    zlog_info(g_zlog, "device sn:%s", m_sn.toLocal8Bit().constData());
}

QString deviceInfo::sn() const
{
    QMutexLocker lock(&m_mutex);
    return m_sn;
}

QString deviceInfo::model() const
{
    return unitTool::GetIniValue("MODEL", lumbra::boxPath(kConfigIni)).toString();
}

QString deviceInfo::DevInfoJson() const
{
    QJsonObject info;
    info.insert("sn_code", sn());
    info.insert("model", model());
    info.insert("version", g_IotVersion);
    info.insert("kernel", kernelRelease());
    QString net = lumbra::boxPath(kNetIni);
    if (QFile::exists(net))
        info.insert("net", iniObject(net, {"Choose_ID", "RouteModel"}, {}));
    QString g4 = lumbra::boxPath(k4gInfo);
    if (QFile::exists(g4))
        info.insert("4g", iniObject(g4, {"net_stat", "signalStrength", "sim_state"},
                                    {"IMEI", "modle_name", "QCCID", "ifname"}));
    return QString::fromUtf8(QJsonDocument(info).toJson(QJsonDocument::Compact));
}
