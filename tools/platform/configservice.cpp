#include "configservice.h"

#include "platformlog.h"
#include "topic.h"

#include "generalFunc/jsonvalue.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace platform {
namespace {

const qint64 kMaxConfigBytes = 16 << 20;

QByteArray nothingNewer()
{
    return "{\"data\":[],\"last_updata_time\":\"1\"}";
}

// A stamp the gateway can hand back: never "1" (nothing newer) or "-1" (no copy).
QString stampOf(const QJsonObject &doc, const QFileInfo &info)
{
    const QString own = doc.value("last_updata_time").toString();
    if (!own.isEmpty() && own != "1" && own != "-1")
        return own;
    return QString::number(info.lastModified().toSecsSinceEpoch());
}

}  // namespace

ConfigService::ConfigService(const QString &dir) : m_dir(QDir(dir).absolutePath()) {}

QString ConfigService::path(const QString &serial, int kind) const
{
    // The serial was checked to be a plain name; checked again here, because
    // this is where it becomes part of a path.
    if (!validSerial(serial) || kind < 0 || kind >= kConfigKinds)
        return QString();
    return m_dir + "/" + serial + "/" + configFileName(kind);
}

QJsonObject ConfigService::file(const QString &serial, int kind) const
{
    QFile f(path(serial, kind));
    if (f.fileName().isEmpty() || f.size() > kMaxConfigBytes || !f.open(QIODevice::ReadOnly))
        return QJsonObject();
    return QJsonDocument::fromJson(f.readAll()).object();
}

QHash<int, QString> ConfigService::pointNames(const QString &serial) const
{
    QHash<int, QString> names;
    for (const QJsonValue &p : file(serial, 1).value("data").toArray())
        names.insert(lumbra::jsonInt(p.toObject().value("data_code")), p.toObject().value("data_name").toString());
    return names;
}

std::vector<std::pair<quint32, int>> ConfigService::historySlots(const QString &serial, int code) const
{
    std::vector<std::pair<quint32, int>> places;
    for (const QJsonValue &g : file(serial, 2).value("data").toArray()) {
        const QJsonArray points = g.toObject().value("sample_data").toArray();
        for (int i = 0; i < points.size(); ++i)
            if (lumbra::jsonInt(points.at(i).toObject().value("data_code"), -1) == code)
                places.emplace_back(static_cast<quint32>(lumbra::jsonInt(g.toObject().value("group_id"))), i);
    }
    return places;
}

bool ConfigService::answer(const QString &serial, const QByteArray &prefix, int kind, const QByteArray &request,
                           Outgoing *out)
{
    const QJsonDocument req = QJsonDocument::fromJson(request);
    const QString file = path(serial, kind);
    if (!req.isObject() || file.isEmpty()) {
        PLOG_WARN("malformed configuration request from %s: %s", serial.toUtf8().constData(),
                  agent::preview(request).constData());
        return false;
    }
    const QString held = req.object().value("last_updata_time").toString();
    out->topic = prefix + configReplyTopic(kind);
    out->payload = nothingNewer();

    const QFileInfo info(file);
    if (!info.exists()) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!QFileInfo(info.path()).isDir() && !m_toldMissing.contains(serial)) {
            m_toldMissing.insert(serial);
            PLOG_INFO("no configuration folder %s: %s keeps its own files", info.path().toUtf8().constData(),
                      serial.toUtf8().constData());
        }
        return true;
    }
    QJsonParseError err;
    QFile f(file);
    const QJsonDocument doc = info.size() <= kMaxConfigBytes && f.open(QIODevice::ReadOnly)
                                  ? QJsonDocument::fromJson(f.readAll(), &err)
                                  : QJsonDocument();
    if (!doc.isObject()) {
        PLOG_ERROR("configuration %s is not a JSON object (%s): %s keeps its own copy",
                   file.toUtf8().constData(), err.errorString().toUtf8().constData(), serial.toUtf8().constData());
        return true;
    }
    QJsonObject reply = doc.object();
    const QString stamp = stampOf(reply, info);
    if (held == stamp) {
        PLOG_DEBUG("%s %s: unchanged (%s)", serial.toUtf8().constData(), configFileName(kind),
                   stamp.toUtf8().constData());
        return true;
    }
    reply.insert("last_updata_time", stamp);
    out->payload = QJsonDocument(reply).toJson(QJsonDocument::Compact);
    PLOG_INFO("%s %s: sent (stamp %s, the gateway held %s)", serial.toUtf8().constData(), configFileName(kind),
              stamp.toUtf8().constData(), held.toUtf8().constData());
    return true;
}

}  // namespace platform
