#include "jsonvalue.h"

#include <QByteArray>
#include <QJsonArray>

#include <charconv>
#include <cstring>

namespace lumbra {

namespace {

const char kHex[] = "0123456789abcdef";

// Bytes that stand for themselves (0), get a backslash (1) or become \u00XX (5 more).
inline int escapeCost(unsigned char c)
{
    return c >= 0x20 ? (c == '"' || c == '\\') : 5;
}

}  // namespace

// Sized first, then written in place: an upload of thousands of points is
// full of quotes, and appending around each would cost more than the rest.
void appendJsonString(QByteArray &out, const char *utf8, int size)
{
    int extra = 0;
    for (int i = 0; i < size; ++i)
        extra += escapeCost(static_cast<unsigned char>(utf8[i]));
    const int at = out.size();
    out.resize(at + size + extra + 2);
    char *w = out.data() + at;
    *w++ = '"';
    if (extra == 0) {
        std::memcpy(w, utf8, static_cast<size_t>(size));
        w += size;
    } else {
        for (int i = 0; i < size; ++i) {
            const auto c = static_cast<unsigned char>(utf8[i]);
            if (c >= 0x20 && c != '"' && c != '\\') {
                *w++ = static_cast<char>(c);
            } else if (c >= 0x20) {
                *w++ = '\\';
                *w++ = static_cast<char>(c);
            } else {
                const char code[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
                std::memcpy(w, code, sizeof code);
                w += sizeof code;
            }
        }
    }
    *w = '"';
}

void appendJsonString(QByteArray &out, const QByteArray &utf8)
{
    appendJsonString(out, utf8.constData(), utf8.size());
}

void appendJsonString(QByteArray &out, const QString &text)
{
    // Plain ASCII (numbers, codes, most names) needs no conversion buffer.
    const int n = text.size();
    const QChar *chars = text.constData();
    if (n <= 64) {
        char ascii[64];
        int i = 0;
        for (; i < n && chars[i].unicode() < 0x80; ++i)
            ascii[i] = static_cast<char>(chars[i].unicode());
        if (i == n) {
            appendJsonString(out, ascii, n);
            return;
        }
    }
    appendJsonString(out, text.toUtf8());
}

void appendJsonInt(QByteArray &out, qint64 n)
{
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, n).ptr;
    out.append(digits, static_cast<int>(end - digits));
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
