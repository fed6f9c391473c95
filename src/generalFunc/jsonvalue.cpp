#include "jsonvalue.h"

#include <QByteArray>
#include <QJsonArray>

#include <charconv>
#include <cstdint>
#include <cstring>

namespace lumbra {

namespace {

const char kHex[] = "0123456789abcdef";

// Extra bytes a byte costs in a JSON string: none, a backslash, or \u00XX.
struct EscapeTable {
    uint8_t extra[256];
    constexpr EscapeTable() : extra()
    {
        for (int c = 0; c < 0x20; ++c)
            extra[c] = 5;
        extra[static_cast<unsigned char>('"')] = 1;
        extra[static_cast<unsigned char>('\\')] = 1;
    }
};
constexpr EscapeTable kEscape;

char *writeEscaped(char *w, unsigned char c)
{
    if (kEscape.extra[c] == 1) {
        *w++ = '\\';
        *w++ = static_cast<char>(c);
        return w;
    }
    const char code[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
    std::memcpy(w, code, sizeof code);
    return w + sizeof code;
}

}  // namespace

// Sized first, then written in place byte by byte: an upload of thousands
// of points is full of quotes, so its plain runs are too short to copy whole.
void appendJsonEscaped(QByteArray &out, const char *utf8, int size)
{
    const auto *in = reinterpret_cast<const unsigned char *>(utf8);
    int extra = 0;
    for (int i = 0; i < size; ++i)
        extra += kEscape.extra[in[i]];
    const int at = out.size();
    out.resize(at + size + extra);
    char *w = out.data() + at;
    if (extra == 0) {
        std::memcpy(w, utf8, static_cast<size_t>(size));
        return;
    }
    for (int i = 0; i < size; ++i) {
        if (kEscape.extra[in[i]])
            w = writeEscaped(w, in[i]);
        else
            *w++ = utf8[i];
    }
}

void appendJsonString(QByteArray &out, const char *utf8, int size)
{
    out.append('"');
    appendJsonEscaped(out, utf8, size);
    out.append('"');
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
