#include "jsonsplit.h"

#include <cstring>

namespace lumbra {

namespace {

class Walker {
public:
    Walker(const char *text, int size) : m_begin(text), m_p(text), m_end(text + size) {}

    int at() const { return static_cast<int>(m_p - m_begin); }
    bool done()
    {
        blanks();
        return m_p == m_end;
    }
    void blanks()
    {
        while (m_p < m_end && (*m_p == ' ' || *m_p == '\t' || *m_p == '\n' || *m_p == '\r'))
            ++m_p;
    }
    bool take(char c)
    {
        blanks();
        if (m_p == m_end || *m_p != c)
            return false;
        ++m_p;
        return true;
    }
    bool next(char c)
    {
        blanks();
        return m_p != m_end && *m_p == c;
    }
    // A string; its bytes between the quotes in *text (escapes as they are).
    bool string(const char **text = nullptr, int *size = nullptr)
    {
        if (!next('"'))
            return false;
        const char *start = ++m_p;
        for (; m_p < m_end; ++m_p) {
            if (*m_p == '\\') {
                ++m_p;
            } else if (*m_p == '"') {
                if (text)
                    *text = start;
                if (size)
                    *size = static_cast<int>(m_p - start);
                ++m_p;
                return true;
            }
        }
        return false;
    }
    bool value()
    {
        blanks();
        if (m_p == m_end)
            return false;
        if (*m_p == '"')
            return string();
        if (*m_p == '{' || *m_p == '[')
            return nested();
        const char *start = m_p;
        while (m_p < m_end && !std::strchr(",}] \t\r\n", *m_p))
            ++m_p;
        return m_p > start;
    }

private:
    bool nested()
    {
        int depth = 0;
        while (m_p < m_end) {
            const char c = *m_p;
            if (c == '"') {
                if (!string())
                    return false;
                continue;
            }
            ++m_p;
            if (c == '{' || c == '[')
                ++depth;
            else if ((c == '}' || c == ']') && --depth == 0)
                return true;
        }
        return false;
    }

    const char *m_begin;
    const char *m_p;
    const char *m_end;
};

bool arrayItems(Walker &w, JsonSpan *array, QVector<JsonSpan> *items)
{
    items->clear();
    array->begin = w.at();
    w.take('[');
    if (!w.take(']')) {
        do {
            w.blanks();
            JsonSpan item;
            item.begin = w.at();
            if (!w.value())
                return false;
            item.end = w.at();
            items->append(item);
        } while (w.take(','));
        if (!w.take(']'))
            return false;
    }
    array->end = w.at();
    return true;
}

}  // namespace

bool splitArrayMember(const QByteArray &text, const char *key, JsonSpan *array, QVector<JsonSpan> *items)
{
    Walker w(text.constData(), text.size());
    const int keySize = static_cast<int>(std::strlen(key));
    bool found = false;
    if (!w.take('{'))
        return false;
    if (!w.take('}')) {
        do {
            const char *name = nullptr;
            int nameSize = 0;
            if (!w.string(&name, &nameSize) || !w.take(':'))
                return false;
            const bool wanted = nameSize == keySize && std::memcmp(name, key, static_cast<size_t>(keySize)) == 0;
            if (wanted && w.next('[')) {
                if (!arrayItems(w, array, items))
                    return false;
                found = true;
            } else if (!w.value()) {
                return false;
            } else if (wanted) {
                found = false;  // the last one is no array
            }
        } while (w.take(','));
        if (!w.take('}'))
            return false;
    }
    return w.done() && found;
}

}  // namespace lumbra
