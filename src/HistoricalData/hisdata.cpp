#include "hisdata_p.h"

#include "device_comm/addressjson.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/jsonvalue.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTime>

#include <climits>

namespace lumbra::his {

namespace {

// A point is read into a buffer of this many bytes.
const int kMaxTotalDigits = 128;

}  // namespace

int periodSeconds(const QString &interval)
{
    static const int unit[] = {3600, 60, 1};
    const QStringList fields = interval.split(',');
    qint64 seconds = 0;
    for (int i = 0; i < 3 && i < fields.size(); ++i)
        seconds += fields.at(i).trimmed().toLongLong() * unit[i];
    return seconds > 0 && seconds <= INT_MAX ? static_cast<int>(seconds) : 0;
}

QStringList clockTimes(const QString &list)
{
    QStringList times;
    for (const QString &part : list.split(',', Qt::SkipEmptyParts)) {
        const QTime t = QTime::fromString(part.trimmed(), "h:m");
        // A text that is no time stays as written: it never matches the clock.
        times << (t.isValid() ? t.toString("hh:mm") : part.trimmed());
    }
    return times;
}

HistoricalData::sampData_t pointFromJson(const QJsonObject &item)
{
    HistoricalData::sampData_t p;
    p.code = jsonInt(item.value("data_code"));
    p.name = jsonText(item.value("data_name"));
    p.dataType = jsonInt(item.value("data_type"));
    p.totalDigits = qBound(0, jsonInt(item.value("data_totalDigits")), kMaxTotalDigits);
    p.decimalDigits = jsonInt(item.value("data_devimalDigits"));
    p.dealType = jsonInt(item.value("data_deal_type"));
    p.addr = addressFromJson(item.value("data_readAddress").toObject(), p.dataType, p.totalDigits);
    return p;
}

QByteArray batchMessage(const QString &sn, unsigned groupId, const QStringList &labels,
                        const QList<HistoricalData::sendDataTime_t> &rows)
{
    QJsonArray data;
    for (const HistoricalData::sendDataTime_t &row : rows) {
        QJsonObject item{{"data_text", row.data}, {"data_time", row.time}};
        if (row.rowId >= 0)
            item.insert("row_id", row.rowId);
        data.append(item);
    }
    const QJsonObject message{{"sn_code", sn},
                              {"group_id", static_cast<qint64>(groupId)},
                              {"data_samples", labels.join(',')},
                              {"data", data}};
    return QJsonDocument(message).toJson(QJsonDocument::Compact);
}

}  // namespace lumbra::his

QStringList HistoricalData::dataFormats(const HisDataCfg_t &group)
{
    QStringList labels;
    for (const sampData_t &p : group.samples) {
        if (p.dataType == VALUE_STRING)
            labels << QString("%1_-1").arg(p.dataType);
        else
            labels << QString("%1_%2").arg(p.dataType).arg(p.decimalDigits);
    }
    return labels;
}
