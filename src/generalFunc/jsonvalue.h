// Lenient readers for values of configuration files and cloud messages:
// platforms write numbers as strings and strings as numbers, and a point
// must not be lost over that.
#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QList>
#include <QString>

namespace lumbra {

// A number, a decimal text or a bool as an int; def for anything else.
inline int jsonInt(const QJsonValue &v, int def = 0)
{
    if (v.isDouble())
        return v.toInt(def);
    if (v.isBool())
        return v.toBool() ? 1 : 0;
    bool ok = false;
    int n = v.toString().trimmed().toInt(&ok, 10);
    return ok ? n : def;
}

// A text, or a number written as text; empty for anything else.
inline QString jsonText(const QJsonValue &v)
{
    if (v.isDouble())
        return QString::number(v.toDouble(), 'g', 15);
    return v.toString();
}

// A bool, or a non-zero number; false for anything else.
inline bool jsonBool(const QJsonValue &v)
{
    return v.isBool() ? v.toBool() : v.isDouble() && v.toDouble() != 0;
}

}  // namespace lumbra

namespace lumbra {

// Appends text as a JSON string literal (quoted, escaped) in UTF-8: for
// hot paths that write JSON by hand instead of building a document.
void appendJsonString(QByteArray &out, const QString &text);
// The same for text that is UTF-8 already.
void appendJsonString(QByteArray &out, const QByteArray &utf8);
void appendJsonString(QByteArray &out, const char *utf8, int size);
// The inside of such a literal, without its quotes: for JSON text carried
// as a string in another JSON document.
void appendJsonEscaped(QByteArray &out, const char *utf8, int size);
// Appends n as a JSON number.
void appendJsonInt(QByteArray &out, qint64 n);

// The ids of a delete: the platform writes "3,7", older messages an array.
// A part that is no number counts as 0, so an acknowledgement shows it.
QList<int> jsonIds(const QJsonValue &ids);

}  // namespace lumbra
