#include "jsonvalue.h"

#include <QByteArray>

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

}  // namespace lumbra
