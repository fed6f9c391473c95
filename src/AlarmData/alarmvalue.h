// How word alarms see device values: the comparable integer of a raw value
// and of a limit text, the comparison of each condition code, and the text
// an event records.
#pragma once

#include <QString>
#include <QtGlobal>

namespace alarmvalue {

// Bytes a raw value must offer: the widest type read here is 32 bits.
const int kRawBytes = 4;

// raw holds at least kRawBytes bytes, little-endian as the link manager
// hands them out.
qint64 wordValue(int dataType, const uchar *raw);
qint64 limitValue(int dataType, const QString &text);
QString valueText(int dataType, const uchar *raw);

// Whether the alarm condition of a word code (4 to 10) holds; false for any
// other code.
bool wordCondition(int code, qint64 value, qint64 limit, qint64 min, qint64 max);
bool isWordCode(int code);

}  // namespace alarmvalue
