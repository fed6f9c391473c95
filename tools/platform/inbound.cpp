#include "inbound.h"

#include "generalFunc/jsonvalue.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <zlib.h>

#include <climits>

namespace platform {
namespace {

using lumbra::jsonInt;
using lumbra::jsonText;

// A number or a decimal text as a 64-bit integer.
bool jsonInt64(const QJsonValue &v, qint64 *out)
{
    if (v.isDouble()) {
        *out = static_cast<qint64>(v.toDouble());
        return true;
    }
    bool ok = false;
    *out = v.toString().trimmed().toLongLong(&ok);
    return ok;
}

// PostgreSQL text cannot hold a zero character; a device string may.
QString storable(QString text)
{
    return text.remove(QChar(0));
}

bool parsePoints(const QJsonObject &o, Inbound *out, QString *why)
{
    const QJsonValue data = o.value("data");
    if (!data.isArray()) {
        *why = "no \"data\" array";
        return false;
    }
    for (const QJsonValue &item : data.toArray()) {
        const QJsonObject p = item.toObject();
        qint64 code = 0;
        if (!jsonInt64(p.value("code"), &code) || code < INT_MIN || code > INT_MAX || !p.contains("data")) {
            *why = "a point without a numeric \"code\" or without \"data\"";
            return false;
        }
        out->points.append({static_cast<int>(code), storable(jsonText(p.value("data")))});
    }
    return true;
}

bool parseHistory(const QJsonObject &o, Inbound *out, QString *why)
{
    qint64 group = -1;
    if (!jsonInt64(o.value("group_id"), &group) || group < 0 || group > 0xffffffffLL) {
        *why = "no valid \"group_id\"";
        return false;
    }
    out->groupId = static_cast<quint32>(group);
    const QJsonValue data = o.value("data");
    if (!data.isArray()) {
        *why = "no \"data\" array";
        return false;
    }
    for (const QJsonValue &item : data.toArray()) {
        const QJsonObject r = item.toObject();
        HistoryRow row;
        if (!jsonInt64(r.value("data_time"), &row.time) || !r.value("data_text").isString()) {
            *why = "a row without a numeric \"data_time\" or a \"data_text\"";
            return false;
        }
        row.text = storable(r.value("data_text").toString());
        if (r.contains("row_id") && (!jsonInt64(r.value("row_id"), &row.rowId) || row.rowId < 0)) {
            *why = "a row whose \"row_id\" is no number";
            return false;
        }
        out->rows.append(row);
    }
    return true;
}

bool parseAlarm(const TopicInfo &info, const QJsonObject &o, Inbound *out, QString *why)
{
    AlarmEvent &a = out->alarm;
    qint64 req = -1;
    if (!jsonInt64(o.value("reqId"), &req) || req < 0 || req > 0xffffffffLL) {
        *why = "no valid \"reqId\"";
        return false;
    }
    if (!o.contains("alarm_index") || !jsonInt64(o.value("alarm_time"), &a.time)) {
        *why = "no \"alarm_index\" or numeric \"alarm_time\"";
        return false;
    }
    a.reqId = static_cast<quint32>(req);
    a.index = jsonInt(o.value("alarm_index"));
    a.level = jsonInt(o.value("alarm_level"));
    a.note = storable(jsonText(o.value("alarm_note")));
    a.type = info.recovery ? 2 : 1;
    return true;
}

bool parseEditAck(const TopicInfo &info, const QJsonObject &o, Inbound *out)
{
    EditAck &e = out->edit;
    e.kind = info.edit;
    if (e.kind == "software") {
        // Progress and outcome of a download or update: "DOWNLOAD", "UPDATE_FAIL", ...
        e.operation = storable(jsonText(o.value("devOperationType")));
        e.ids = storable(jsonText(o.value("state")));
        e.result = e.ids.endsWith("_FAIL") ? 0 : 1;
        return true;
    }
    e.operation = storable(jsonText(o.value("operation_type")));
    e.ids = storable(jsonText(o.value("data_index")));
    e.result = jsonInt(o.value("operation_result"));
    return true;
}

}  // namespace

bool parsePayload(const TopicInfo &info, const QByteArray &json, Inbound *out, QString *why)
{
    QJsonParseError err;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &err);
    if (err.error != QJsonParseError::NoError || !doc.isObject()) {
        *why = err.error != QJsonParseError::NoError ? "not JSON: " + err.errorString() : "not a JSON object";
        return false;
    }
    const QJsonObject o = doc.object();
    switch (info.kind) {
    case TopicKind::RealTime:
        return parsePoints(o, out, why);
    case TopicKind::History:
        return parseHistory(o, out, why);
    case TopicKind::Alarm:
        return parseAlarm(info, o, out, why);
    case TopicKind::EditAck:
        return parseEditAck(info, o, out);
    case TopicKind::ForwardState:
        out->forwardId = jsonInt(o.value("config_id"));
        out->forwardStatus = jsonInt(o.value("status"));
        return true;
    case TopicKind::DeviceInfo:
        out->text = storable(QString::fromUtf8(json));
        return true;
    default:
        *why = "nothing to keep";
        return false;
    }
}

bool inflateZlib(const QByteArray &in, int maxBytes, QByteArray *out, const char **why)
{
    z_stream z{};
    if (inflateInit(&z) != Z_OK) {
        *why = "zlib cannot start";
        return false;
    }
    z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(in.constData()));
    z.avail_in = static_cast<uInt>(in.size());
    out->clear();
    char chunk[16384];
    int rc = Z_OK;
    while (rc == Z_OK) {
        z.next_out = reinterpret_cast<Bytef *>(chunk);
        z.avail_out = sizeof chunk;
        rc = inflate(&z, Z_NO_FLUSH);
        const int produced = static_cast<int>(sizeof chunk - z.avail_out);
        if (out->size() + produced > maxBytes) {
            rc = Z_MEM_ERROR;
            *why = "inflates beyond the payload limit";
            break;
        }
        out->append(chunk, produced);
        if (rc == Z_BUF_ERROR && z.avail_in == 0)
            *why = "truncated zlib stream";
        else if (rc != Z_OK && rc != Z_STREAM_END)
            *why = "not a zlib stream";
    }
    inflateEnd(&z);
    return rc == Z_STREAM_END;
}

}  // namespace platform
