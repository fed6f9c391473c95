#include "jsonvalue.h"

#include <QByteArray>
#include <QJsonArray>

namespace lumbra {

void appendJsonString(QByteArray &out, const QString &text)
{
    static const char hex[] = "0123456789abcdef";
    const QByteArray utf8 = text.toUtf8();
    out.append('"');
    for (char c : utf8) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out.append('\\');
            out.append(c);
        } else if (u < 0x20) {
            out.append("\\u00");
            out.append(hex[u >> 4]);
            out.append(hex[u & 0xF]);
        } else {
            out.append(c);
        }
    }
    out.append('"');
}

QList<int> jsonIds(const QJsonValue &ids)
{
    QList<int> out;
    if (ids.isArray()) {
        for (const QJsonValue &v : ids.toArray())
            out << jsonInt(v);
        return out;
    }
    for (const QString &part : jsonText(ids).split(',', Qt::SkipEmptyParts))
        out << jsonInt(part.trimmed());
    return out;
}

}  // namespace lumbra
