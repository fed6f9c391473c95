#include "mqttpayload.h"

#include "mqtttopic.h"

#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QRegularExpression>

#include <cmath>

namespace lumbra::forward {

namespace {

bool isName(const QStringRef &name)
{
    if (name.isEmpty())
        return false;
    for (QChar c : name)
        if (!(c.isLetterOrNumber() && c.unicode() < 128) && c != '_')
            return false;
    return true;
}

// A BCD point reads "0012", which JSON does not take as a number.
QByteArray jsonNumber(const QString &text)
{
    static const QRegularExpression strict("^-?(0|[1-9][0-9]*)(\\.[0-9]+)?([eE][+-]?[0-9]+)?$");
    const QString t = text.trimmed();
    if (strict.match(t).hasMatch())
        return t.toUtf8();
    return QByteArray::number(t.toDouble(), 'g', 15);
}

QByteArray escaped(const QString &text)
{
    QByteArray quoted;
    appendJsonString(quoted, text);
    return quoted.mid(1, quoted.size() - 2);
}

QByteArray bare(const Fill &fill)
{
    if (!fill.present)
        return "null";
    if (fill.number)
        return jsonNumber(fill.text);
    QByteArray quoted;
    appendJsonString(quoted, fill.text);
    return quoted;
}

}  // namespace

Fill Fill::numeric(const QString &text)
{
    bool ok = false;
    const double v = text.trimmed().toDouble(&ok);
    return Fill{true, ok && std::isfinite(v), text};
}

Fill Fill::value(const QString &text)
{
    bool ok = false;
    text.trimmed().toDouble(&ok);
    return ok || text.trimmed().isEmpty() ? numeric(text) : string(text);
}

QByteArray render(const QString &tmpl, const Resolver &resolve)
{
    QByteArray out;
    out.reserve(tmpl.size() + 64);
    bool inString = false;
    int stringStart = -1;  // where in out the open string's quote is
    const int n = tmpl.size();
    for (int i = 0; i < n; ++i) {
        const QChar c = tmpl.at(i);
        if (inString && c == '\\' && i + 1 < n) {
            out.append(QString(tmpl.mid(i, 2)).toUtf8());
            ++i;
            continue;
        }
        if (c == '"') {
            inString = !inString;
            stringStart = inString ? out.size() : -1;
            out.append('"');
            continue;
        }
        const int end = c == '%' ? tmpl.indexOf('%', i + 1) : -1;
        Fill fill;
        if (end < 0 || !isName(tmpl.midRef(i + 1, end - i - 1)) || !resolve(tmpl.mid(i + 1, end - i - 1), &fill)) {
            out.append(QString(c).toUtf8());
            continue;
        }
        const bool wholeString = inString && stringStart == out.size() - 1 && end + 1 < n && tmpl.at(end + 1) == '"';
        if (!inString) {
            out.append(bare(fill));
        } else if (!fill.present && wholeString) {
            out.chop(1);
            out.append("null");
            inString = false;
        } else if (fill.present) {
            out.append(escaped(fill.text));
        }
        // A string that became null takes its closing quote with it.
        i = end + (wholeString && !fill.present ? 1 : 0);
    }
    return out;
}

bool systemVariable(const QString &name, const QDateTime &when, Fill *out)
{
    if (name == "timestamp")
        *out = Fill::numeric(QString::number(when.toSecsSinceEpoch() - g_zonetime));
    else if (name == "timestamp_long_ms")
        *out = Fill::numeric(QString::number(QDateTime::currentMSecsSinceEpoch() - qint64(g_zonetime) * 1000));
    else if (name == "datetime")
        *out = Fill::string(when.toString("yyyy-MM-dd hh:mm:ss"));
    else
        return false;
    return true;
}

QString alarmTemplate(const MqttClient::topicData_t &topic)
{
    const QString text = templateOf(topic);
    if (!text.trimmed().isEmpty())
        return text;
    return "{\"alarm\":%alarm_index%,\"system\":\"%sn%\",\"alarm_type\":\"%alarm_type%\","
           "\"value\":\"%alarm_value%\",\"timestamp\":%timestamp%,\"timestamp_long_ms\":%timestamp_long_ms%,"
           "\"datetime\":\"%datetime%\"}";
}

bool alarmVariable(const QString &name, int index, int type, const QString &value, Fill *out)
{
    if (name == "alarm_index")
        *out = Fill::numeric(QString::number(index));
    else if (name == "alarm_type")
        *out = Fill::string(type == 1 ? "ON" : "OFF");
    else if (name == "alarm_value")
        *out = Fill::value(value);
    else
        return false;
    return true;
}

}  // namespace lumbra::forward
