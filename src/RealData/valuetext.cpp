#include "valuetext.h"

#include "generalFunc/jsonvalue.h"

#include <cstring>

// Inline only what JSON writes as it stands, so that an upload copies it
// without a look at each byte.
bool ValueText::fitsInline(const char *latin1, int size)
{
    if (size > kInline)
        return false;
    for (int i = 0; i < size; ++i) {
        const auto c = static_cast<unsigned char>(latin1[i]);
        if (c < 0x20 || c > 0x7e || c == '"' || c == '\\')
            return false;
    }
    return true;
}

bool ValueText::setInline(const char *text, int size)
{
    char next[sizeof m_inline] = {};
    std::memcpy(next, text, static_cast<size_t>(size));
    next[kInline] = static_cast<char>(size);
    if (std::memcmp(next, m_inline, sizeof next) == 0)
        return false;
    if (this->size() < 0)
        m_long = QString();
    std::memcpy(m_inline, next, sizeof next);
    return true;
}

bool ValueText::set(const char *latin1, int size)
{
    if (fitsInline(latin1, size))
        return setInline(latin1, size);
    return set(QString::fromLatin1(latin1, size));
}

bool ValueText::setPlain(const char *ascii, int size)
{
    return size <= kInline ? setInline(ascii, size) : set(ascii, size);
}

bool ValueText::set(const QString &text)
{
    const int n = text.size();
    if (n <= kInline) {
        char ascii[kInline];
        const QChar *chars = text.constData();
        int i = 0;
        for (; i < n && chars[i].unicode() < 0x80; ++i)
            ascii[i] = static_cast<char>(chars[i].unicode());
        if (i == n && fitsInline(ascii, n))
            return setInline(ascii, n);
    }
    if (size() < 0 && m_long == text)
        return false;
    m_long = text;
    std::memset(m_inline, 0, sizeof m_inline);
    m_inline[kInline] = -1;
    return true;
}

QString ValueText::toString() const
{
    return size() < 0 ? m_long : QString::fromLatin1(m_inline, size());
}

bool ValueText::operator==(const ValueText &o) const
{
    if (std::memcmp(m_inline, o.m_inline, sizeof m_inline) != 0)
        return false;
    return size() >= 0 || m_long == o.m_long;
}

char *ValueText::writeInline(char *w, bool nested) const
{
    if (nested)
        *w++ = '\\';
    *w++ = '"';
    std::memcpy(w, m_inline, static_cast<size_t>(size()));
    w += size();
    if (nested)
        *w++ = '\\';
    *w++ = '"';
    return w;
}

void ValueText::appendJson(QByteArray &out, bool nested) const
{
    if (size() >= 0) {
        const int at = out.size();
        out.resize(at + kMaxInlineJson);
        out.resize(static_cast<int>(writeInline(out.data() + at, nested) - out.constData()));
        return;
    }
    if (!nested) {
        lumbra::appendJsonString(out, m_long);
        return;
    }
    QByteArray literal;
    lumbra::appendJsonString(literal, m_long);
    lumbra::appendJsonEscaped(out, literal.constData(), literal.size());
}
