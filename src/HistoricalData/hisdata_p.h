// Pieces of the history service that need neither its state nor its log:
// reading the configuration's texts and writing the upload of a batch.
#pragma once

#include "HistoricalData.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

namespace lumbra::his {

// "h,m,s" in seconds; 0 when the text gives no positive period.
int periodSeconds(const QString &interval);

// "hh:mm" clock times of a comma-separated list, written with two digits
// each so that "8:05" matches the clock's "08:05".
QStringList clockTimes(const QString &list);

// One object of a group's "sample_data", its address resolved.
HistoricalData::sampData_t pointFromJson(const QJsonObject &item);

// One group's rows as the cloud takes them, compact JSON.
QByteArray batchMessage(const QString &sn, unsigned groupId, const QStringList &labels,
                        const QList<HistoricalData::sendDataTime_t> &rows);

}  // namespace lumbra::his
