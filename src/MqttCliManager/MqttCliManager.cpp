#include "MqttCliManager.h"

#include "mqttconfig.h"
#include "mqttpayload.h"
#include "mqtttopic.h"

#include "RealData/RealData.h"

#include "generalFunc/boxpath.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonArray>

#include <mosquitto.h>

namespace {

const char kConfigPath[] = "./iotRunTime/ServerCfg.json";
const char kLocalCacheDir[] = "./mqttForwardDir";
const char kDiskCacheDir[] = "/tmp/udisk/mqttForwardDir";

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

void initLibrary()
{
    static const bool done = [] {
        mosquitto_lib_init();
        int major = 0, minor = 0, revision = 0;
        zlog_info(g_zlog, "mosquitto version:%d", mosquitto_lib_version(&major, &minor, &revision));
        return true;
    }();
    (void)done;
}

}  // namespace

MqttCliManager *MqttCliManager::getInstance()
{
    static MqttCliManager instance;
    return &instance;
}

MqttCliManager::~MqttCliManager()
{
    stop();
}

void MqttCliManager::stop()
{
    QMutexLocker lock(&m_mutex);
    clear();
}

// Called with m_mutex held.
void MqttCliManager::clear()
{
    for (MqttClient *c : qAsConst(m_clients)) {
        c->destroyClient();
        delete c;
    }
    m_clients.clear();
}

bool MqttCliManager::readFile(QJsonObject *root) const
{
    QFile file(kConfigPath);
    if (!file.open(QIODevice::ReadOnly)) {
        zlog_error(g_zlog, "%s open fail", kConfigPath);
        return false;
    }
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        const QString why = error.error != QJsonParseError::NoError ? error.errorString() : "not an object";
        zlog_error(g_zlog, "json %s parse fail:%s", kConfigPath, local8(why).constData());
        return false;
    }
    *root = doc.object();
    return true;
}

void MqttCliManager::init()
{
    QMutexLocker lock(&m_mutex);
    clear();
    // Only forwarding reads the points between the uploads.
    RealData::getInstance()->setReadBetweenUploads(false);
    QJsonObject root;
    if (!readFile(&root))
        return;
    const QJsonArray servers = root.value("data").toArray();
    for (const QJsonValue &v : servers) {
        if (!v.isObject()) {
            zlog_error(g_zlog, "%s server record is not an object, skipped", kConfigPath);
            continue;
        }
        addClient(v.toObject(), servers);
    }
    const QString disk = lumbra::boxPath(kDiskCacheDir);
    zlog_info(g_zlog, "cache dir %s exists:%d, %s exists:%d", local8(disk).constData(), QDir(disk).exists() ? 1 : 0,
              kLocalCacheDir, QDir(kLocalCacheDir).exists() ? 1 : 0);
    RealData::getInstance()->setReadBetweenUploads(!m_clients.isEmpty());
    for (MqttClient *c : qAsConst(m_clients)) {
        c->init();
        c->start();
    }
    zlog_info(g_zlog, "mqtt forward clients:%d", m_clients.size());
}

// Store type 1 is the removable disk when one is mounted; everything else
// stays on the box.
QString MqttCliManager::cacheDirFor(int storeType) const
{
    if (storeType != 1)
        return kLocalCacheDir;
    const QString disk = lumbra::boxPath("/tmp/udisk");
    if (QDir(disk).exists())
        return lumbra::boxPath(kDiskCacheDir);
    zlog_warn(g_zlog, "no removable disk at %s, caching in %s", local8(disk).constData(), kLocalCacheDir);
    return kLocalCacheDir;
}

namespace {

// An older version named a server's cache by its client id; the file is
// this server's only when no other server has the same id.
QString legacyCacheName(const QString &clientId, const QJsonArray &servers)
{
    int sharing = 0;
    for (const QJsonValue &v : servers)
        sharing += lumbra::jsonText(v.toObject().value("client_id")) == clientId ? 1 : 0;
    return sharing == 1 && !clientId.isEmpty() ? lumbra::forward::fileSafe(clientId) : QString();
}

}  // namespace

// Called with m_mutex held. A server that cannot work is left out whole,
// a topic that cannot work is left out of its server; the rest runs.
void MqttCliManager::addClient(const QJsonObject &server, const QJsonArray &all)
{
    MqttClient::Settings s;
    QString why;
    if (!lumbra::forward::serverFromJson(server, &s, &why)) {
        zlog_error(g_zlog, "server_config_id:%d refused: %s", s.configId, local8(why).constData());
        return;
    }
    for (const MqttClient *c : qAsConst(m_clients)) {
        if (c->configId() == s.configId) {
            zlog_error(g_zlog, "server_config_id:%d refused: the id is taken by an earlier server", s.configId);
            return;
        }
    }
    // Here rather than at start: a box without brokers never loads the library.
    initLibrary();
    s.cacheDir = cacheDirFor(s.storeType);
    s.legacyCacheName = legacyCacheName(s.clientId, all);
    auto *client = new MqttClient(s);
    for (const char *list : {"publish_topic_data", "subscribe_topic_data"}) {
        for (const QJsonValue &v : server.value(list).toArray()) {
            MqttClient::topicData_t t = lumbra::forward::topicFromJson(v.toObject());
            t.serverConfigId = s.configId;
            if (lumbra::forward::isSubscribeFunc(lumbra::forward::funcOf(t)))
                client->addSubTopicData(t);
            else
                client->addPubTopicData(t);
        }
    }
    m_clients.append(client);
}

void MqttCliManager::replaceSysVar(QString &text, const QDateTime &when)
{
    if (!text.contains('%'))
        return;
    for (const char *name : {"timestamp", "timestamp_long_ms", "datetime"}) {
        lumbra::forward::Fill fill;
        lumbra::forward::systemVariable(name, when, &fill);
        text.replace(QString("%%1%").arg(name), fill.text);
    }
}

void MqttCliManager::dealMqttDataForward(const int &index, const int &type, QString value)
{
    const QDateTime now = QDateTime::currentDateTime();
    QMutexLocker lock(&m_mutex);
    for (MqttClient *c : qAsConst(m_clients))
        c->sendAlarm(index, type, value, now);
}

int MqttCliManager::clientCount() const
{
    QMutexLocker lock(&m_mutex);
    return m_clients.size();
}

MqttClient *MqttCliManager::client(int configId) const
{
    QMutexLocker lock(&m_mutex);
    for (MqttClient *c : m_clients)
        if (c->configId() == configId)
            return c;
    return nullptr;
}
