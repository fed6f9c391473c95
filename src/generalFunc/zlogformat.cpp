#include "zlogformat.h"

#include "zlogconf.h"

#include <cstring>
#include <pthread.h>
#include <unistd.h>

namespace lumbra::zlogfmt {
namespace {

void pad(std::string &out, const std::string &value, int width, bool left)
{
    int fill = width - static_cast<int>(value.size());
    if (fill > 0 && !left)
        out.append(fill, ' ');
    out += value;
    if (fill > 0 && left)
        out.append(fill, ' ');
}

std::string lower(const char *s)
{
    std::string r(s);
    for (auto &c : r)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return r;
}

void replaceAll(std::string &s, const char *what, const std::string &with)
{
    size_t len = std::strlen(what);
    for (size_t p = s.find(what); p != std::string::npos; p = s.find(what, p + with.size()))
        s.replace(p, len, with);
}

void appendFraction(std::string &out, long value, int digits)
{
    char buf[24];
    snprintf(buf, sizeof buf, "%0*ld", digits, value);
    out += buf;
}

}  // namespace

std::string sourceName(const char *file)
{
    std::string name(file ? file : "");
    // A compiler cache may hand the compiler relative source paths, which
    // the build's prefix map cannot match: "../../../src/x/y.cpp".
    size_t up = 0;
    while (name.compare(up, 3, "../") == 0)
        up += 3;
    if (up > 0 && name.compare(up, 4, "src/") == 0)
        name.erase(0, up + 4);
    size_t slash = name.rfind('/');
    size_t dot = name.rfind('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash))
        name.erase(dot);
    return name;
}

Format::Format(const std::string &pattern)
{
    Op literal;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%' || i + 1 >= pattern.size()) {
            literal.text += pattern[i];
            continue;
        }
        Op op;
        size_t j = i + 1;
        if (pattern[j] == '-') {
            op.left = true;
            ++j;
        }
        while (j < pattern.size() && std::isdigit(static_cast<unsigned char>(pattern[j])))
            op.width = op.width * 10 + (pattern[j++] - '0');
        if (j >= pattern.size())
            break;
        op.conv = pattern[j];
        // "%ms" and "%us": milliseconds and microseconds of the line's time.
        if ((op.conv == 'm' || op.conv == 'u') && j + 1 < pattern.size() && pattern[j + 1] == 's') {
            op.conv = op.conv == 'm' ? 'M' : 'S';
            ++j;
        }
        if (op.conv == '%') {
            literal.text += '%';
            i = j;
            continue;
        }
        if (op.conv == 'd') {
            op.text = "%F %T";
            size_t close = pattern.find(')', j);
            if (j + 1 < pattern.size() && pattern[j + 1] == '(' && close != std::string::npos) {
                op.text = pattern.substr(j + 2, close - j - 2);
                j = close;
            }
        }
        if (!literal.text.empty()) {
            m_ops.push_back(literal);
            literal = Op();
        }
        m_ops.push_back(op);
        i = j;
    }
    if (!literal.text.empty())
        m_ops.push_back(literal);
}

void Format::appendTime(const Op &op, const timespec &ts, std::string &out) const
{
    std::string pattern = op.text;
    char digits[24];
    if (pattern.find("%ms") != std::string::npos) {
        snprintf(digits, sizeof digits, "%03ld", ts.tv_nsec / 1000000);
        replaceAll(pattern, "%ms", digits);
    }
    if (pattern.find("%us") != std::string::npos) {
        snprintf(digits, sizeof digits, "%06ld", ts.tv_nsec / 1000);
        replaceAll(pattern, "%us", digits);
    }
    struct tm tmv;
    localtime_r(&ts.tv_sec, &tmv);
    char buf[256];
    size_t n = strftime(buf, sizeof buf, pattern.c_str(), &tmv);
    pad(out, std::string(buf, n), op.width, op.left);
}

void Format::render(const Record &rec, std::string &out) const
{
    for (const Op &op : m_ops) {
        switch (op.conv) {
        case 0: out += op.text; break;
        case 'd': appendTime(op, rec.time, out); break;
        case 'V': pad(out, zlogconf::levelName(rec.level), op.width, op.left); break;
        case 'v': pad(out, lower(zlogconf::levelName(rec.level)), op.width, op.left); break;
        case 'c': pad(out, rec.category, op.width, op.left); break;
        case 'F': pad(out, sourceName(rec.file), op.width, op.left); break;
        case 'L': pad(out, std::to_string(rec.line), op.width, op.left); break;
        case 'U': pad(out, rec.func ? rec.func : "", op.width, op.left); break;
        case 'm': out.append(rec.msg, rec.msgLen); break;
        case 'M': appendFraction(out, rec.time.tv_nsec / 1000000, 3); break;
        case 'S': appendFraction(out, rec.time.tv_nsec / 1000, 6); break;
        case 'n': out += '\n'; break;
        case 'p': pad(out, std::to_string(getpid()), op.width, op.left); break;
        case 't': {
            char tid[32];
            snprintf(tid, sizeof tid, "%lx", static_cast<unsigned long>(pthread_self()));
            pad(out, tid, op.width, op.left);
            break;
        }
        default:  // unknown conversions are kept as written
            out += '%';
            out += op.conv;
        }
    }
}

}  // namespace lumbra::zlogfmt
