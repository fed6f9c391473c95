// A point's value text. Plain numbers, what most points hold, live in the
// record itself; a longer text, or one that JSON has to escape, in a QString.
// A box keeps two of these for each of tens of thousands of points, and a
// heap block apiece would outweigh the rest of the record.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstring>

class ValueText {
public:
    static constexpr int kInline = 15;

    ValueText() = default;
    ValueText(const ValueText &o) = default;
    // Touches the separate text only when one side has one: a copy of a
    // number is a copy of two words.
    ValueText &operator=(const ValueText &o)
    {
        if (size() < 0 || o.size() < 0)
            m_long = o.m_long;
        std::memcpy(m_inline, o.m_inline, sizeof m_inline);
        return *this;
    }

    // Both true when the text changed. A text has one form whatever the
    // call that set it, so equal texts compare equal.
    bool set(const char *latin1, int size);
    bool set(const QString &text);
    // For ASCII text without controls, quotes or backslashes (the digits
    // of a number): no look at each byte.
    bool setPlain(const char *ascii, int size);
    QString toString() const;
    bool isEmpty() const { return size() == 0; }
    bool operator==(const ValueText &o) const;
    bool operator!=(const ValueText &o) const { return !(*this == o); }

    // Appends the text as a JSON string literal; nested writes it as it
    // stands inside another JSON string (each quote and backslash escaped
    // once more).
    void appendJson(QByteArray &out, bool nested) const;
    // The most bytes appendJson writes for an inline text.
    static constexpr int kMaxInlineJson = kInline + 4;
    bool isInline() const { return size() >= 0; }
    // An inline text's literal at w, which has kMaxInlineJson bytes; the end.
    char *writeInline(char *w, bool nested) const;

private:
    static bool fitsInline(const char *latin1, int size);
    bool setInline(const char *text, int size);
    int size() const { return static_cast<qint8>(m_inline[kInline]); }

    QString m_long;  // the text while size() < 0
    // The text, zero past its end, and last its size (-1: the text is
    // m_long): two texts compare as two machine words.
    char m_inline[kInline + 1] = {};
};
