// Payload templates: "%name%" placeholders filled so that the message stays
// JSON whatever the values are. Inside a JSON string a value is escaped
// (quotes, backslashes, control characters); outside one a number goes in
// as a number, a text as a quoted string, and a value that is not there (a
// point not read yet or not read now, NaN, infinity) as null.
#pragma once

#include "MqttClient.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <functional>

namespace lumbra::forward {

struct Fill {
    bool number = false;
    bool present = true;
    QString text;

    static Fill string(const QString &text) { return Fill{false, true, text}; }
    // Present only when text is a finite number.
    static Fill numeric(const QString &text);
    // A number when text reads as one (NaN and infinity too), else a text.
    static Fill value(const QString &text);
    static Fill missing() { return Fill{true, false, QString()}; }
};

// Looks a placeholder up by its name; false leaves "%name%" as it stands.
using Resolver = std::function<bool(const QString &name, Fill *out)>;

// The template with every placeholder that resolve knows filled. A value
// that is missing becomes null, and so does a string that holds nothing
// but its placeholder ("%value_1%"); inside a longer string it leaves
// nothing.
QByteArray render(const QString &tmpl, const Resolver &resolve);

// "timestamp" and "datetime" at when, "timestamp_long_ms" now (the moment
// of sending), the time zone offset taken off the stamps; false for others.
bool systemVariable(const QString &name, const QDateTime &when, Fill *out);

// The template of an alarm topic, or the default object when it has none.
QString alarmTemplate(const MqttClient::topicData_t &topic);
// The alarm placeholders "alarm_index", "alarm_type" (ON for type 1, OFF
// otherwise) and "alarm_value".
bool alarmVariable(const QString &name, int index, int type, const QString &value, Fill *out);

}  // namespace lumbra::forward
