// JSON written by hand on the hot paths (pushes to the console, long history
// answers), where building a document first would cost more than the data.
#pragma once

#include "generalFunc/jsonvalue.h"

#include <QByteArray>
#include <QString>

namespace platform {

// Appends "key":"text" (or "key":number), with a comma first unless the
// object or array was just opened.
inline void jsonKey(QByteArray &out, const char *key)
{
    if (!out.isEmpty() && out.back() != '{' && out.back() != '[')
        out += ',';
    out += '"';
    out += key;
    out += "\":";
}

inline void jsonField(QByteArray &out, const char *key, const QString &text)
{
    jsonKey(out, key);
    lumbra::appendJsonString(out, text);
}

inline void jsonField(QByteArray &out, const char *key, const char *text)
{
    jsonField(out, key, QString::fromUtf8(text));
}

inline void jsonField(QByteArray &out, const char *key, qint64 number)
{
    jsonKey(out, key);
    out += QByteArray::number(number);
}

inline void jsonField(QByteArray &out, const char *key, int number)
{
    jsonField(out, key, qint64(number));
}

inline void jsonBool(QByteArray &out, const char *key, bool value)
{
    jsonKey(out, key);
    out += value ? "true" : "false";
}

// Opens the next element of an array: "{" after "[" , ",{" otherwise.
inline void jsonOpenItem(QByteArray &out)
{
    out += out.isEmpty() || out.back() == '[' ? "{" : ",{";
}

}  // namespace platform
