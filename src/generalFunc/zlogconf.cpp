#include "zlogconf.h"

#include <algorithm>
#include <cctype>
#include <sstream>

namespace lumbra::zlogconf {
namespace {

struct LevelName {
    const char *name;
    int level;
};
constexpr LevelName kLevels[] = {{"DEBUG", 20}, {"INFO", 40},   {"NOTICE", 60},
                                 {"WARN", 80},  {"ERROR", 100}, {"FATAL", 120}};

std::string trim(const std::string &s)
{
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos)
        return {};
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

std::string upper(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::toupper(c); });
    return s;
}

// Reads a double-quoted string starting at pos (which must hold the quote).
bool readQuoted(const std::string &s, size_t &pos, std::string &out)
{
    if (pos >= s.size() || s[pos] != '"')
        return false;
    size_t end = s.find('"', pos + 1);
    if (end == std::string::npos)
        return false;
    out = s.substr(pos + 1, end - pos - 1);
    pos = end + 1;
    return true;
}

void skipBlanks(const std::string &s, size_t &pos)
{
    while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t'))
        ++pos;
}

bool parseFormatLine(const std::string &line, Config &out, std::string &error)
{
    size_t eq = line.find('=');
    if (eq == std::string::npos) {
        error = "format line without '='";
        return false;
    }
    std::string name = trim(line.substr(0, eq));
    std::string rest = trim(line.substr(eq + 1));
    size_t pos = 0;
    std::string pattern;
    if (name.empty() || !readQuoted(rest, pos, pattern) || !trim(rest.substr(pos)).empty()) {
        error = "format must be: name = \"pattern\"";
        return false;
    }
    out.formats[name] = pattern;
    return true;
}

bool parseSelector(const std::string &sel, Rule &rule, std::string &error)
{
    size_t dot = sel.rfind('.');
    if (dot == std::string::npos || dot == 0) {
        error = "rule selector must be category.LEVEL";
        return false;
    }
    rule.category = sel.substr(0, dot);
    std::string lv = upper(sel.substr(dot + 1));
    if (lv == "*") {
        rule.match = LevelMatch::Any;
        return true;
    }
    if (!lv.empty() && (lv[0] == '=' || lv[0] == '!')) {
        rule.match = lv[0] == '=' ? LevelMatch::Exactly : LevelMatch::Not;
        lv.erase(0, 1);
    }
    rule.level = levelFromName(lv);
    if (rule.level == 0) {
        error = "unknown level \"" + sel.substr(dot + 1) + "\"";
        return false;
    }
    return true;
}

// `, 10MB * 3 ~ "file.#r"` after a file name; every part after the size is optional.
bool parseRotation(const std::string &spec, Rule &rule, std::string &error)
{
    std::string s = trim(spec);
    std::string archive;
    size_t tilde = s.find('~');
    if (tilde != std::string::npos) {
        std::string quoted = trim(s.substr(tilde + 1));
        size_t pos = 0;
        if (!readQuoted(quoted, pos, archive) || !trim(quoted.substr(pos)).empty()) {
            error = "archive name after '~' must be quoted";
            return false;
        }
        s = trim(s.substr(0, tilde));
    }
    std::string count;
    size_t star = s.find('*');
    if (star != std::string::npos) {
        count = trim(s.substr(star + 1));
        s = trim(s.substr(0, star));
    }
    if (!parseSize(s, rule.maxSize)) {
        error = "bad file size \"" + s + "\"";
        return false;
    }
    if (!count.empty()) {
        char *end = nullptr;
        long n = std::strtol(count.c_str(), &end, 10);
        if (*end != '\0' || n < 0 || n > 100000) {
            error = "bad archive count \"" + count + "\"";
            return false;
        }
        rule.maxFiles = static_cast<int>(n);
    }
    rule.archivePattern = archive.empty() ? rule.path + ".#r" : archive;
    return true;
}

// Returns 1 for a rule, 0 for an output this layer does not offer (skipped with
// a warning), -1 for a line it cannot read.
int parseRuleLine(const std::string &line, const std::string &where, Config &out, std::string &error)
{
    Rule rule;
    size_t pos = line.find_first_of(" \t");
    if (pos == std::string::npos) {
        error = "rule without an output";
        return -1;
    }
    if (!parseSelector(line.substr(0, pos), rule, error))
        return -1;
    std::string rest = line.substr(pos);
    size_t semi = rest.rfind(';');
    if (semi != std::string::npos && rest.find('"', semi) == std::string::npos) {
        rule.formatName = trim(rest.substr(semi + 1));
        rest = rest.substr(0, semi);
    }
    rest = trim(rest);
    if (rest == ">stdout") {
        rule.output = Output::Stdout;
    } else if (rest == ">stderr") {
        rule.output = Output::Stderr;
    } else if (!rest.empty() && rest[0] == '"') {
        size_t p = 0;
        if (!readQuoted(rest, p, rule.path) || rule.path.empty()) {
            error = "unterminated file name";
            return -1;
        }
        rule.output = Output::File;
        skipBlanks(rest, p);
        if (p < rest.size()) {
            if (rest[p] != ',') {
                error = "expected ',' after the file name";
                return -1;
            }
            if (!parseRotation(rest.substr(p + 1), rule, error))
                return -1;
        }
    } else if (!rest.empty() && (rest[0] == '>' || rest[0] == '|' || rest[0] == '$')) {
        out.warnings.push_back(where + "output \"" + rest + "\" is not supported, rule ignored");
        return 0;
    } else {
        error = "unknown output \"" + rest + "\"";
        return -1;
    }
    if (!rule.formatName.empty() && !out.formats.count(rule.formatName)) {
        error = "unknown format \"" + rule.formatName + "\"";
        return -1;
    }
    out.rules.push_back(rule);
    return 1;
}

}  // namespace

bool Rule::accepts(const std::string &cat, int lvl) const
{
    if (category != "*" && category != cat)
        return false;
    switch (match) {
    case LevelMatch::Any: return true;
    case LevelMatch::Exactly: return lvl == level;
    case LevelMatch::Not: return lvl != level;
    case LevelMatch::AtLeast: return lvl >= level;
    }
    return false;
}

int levelFromName(const std::string &name)
{
    for (const auto &l : kLevels)
        if (upper(name) == l.name)
            return l.level;
    return 0;
}

const char *levelName(int level)
{
    for (const auto &l : kLevels)
        if (l.level == level)
            return l.name;
    return "UNKNOWN";
}

bool parseSize(const std::string &text, uint64_t &bytes)
{
    std::string t = upper(trim(text));
    size_t digits = 0;
    while (digits < t.size() && std::isdigit(static_cast<unsigned char>(t[digits])))
        ++digits;
    if (digits == 0 || digits > 12)
        return false;
    uint64_t n = std::stoull(t.substr(0, digits));
    std::string unit = t.substr(digits);
    static const std::map<std::string, uint64_t> kUnits = {
        {"", 1},           {"K", 1000},          {"KB", 1024},
        {"M", 1000000},    {"MB", 1024 * 1024},  {"G", 1000000000},
        {"GB", 1024ull * 1024 * 1024}};
    auto it = kUnits.find(unit);
    if (it == kUnits.end())
        return false;
    bytes = n * it->second;
    return true;
}

bool parse(const std::string &text, Config &out, std::string &error)
{
    if (text.find('\0') != std::string::npos) {
        error = "not a text file";
        return false;
    }
    std::istringstream in(text);
    std::string raw, section;
    int lineNo = 0;
    while (std::getline(in, raw)) {
        ++lineNo;
        std::string line = trim(raw);
        if (line.empty() || line[0] == '#')
            continue;
        auto where = [&] { return "line " + std::to_string(lineNo) + ": "; };
        if (line.front() == '[') {
            if (line.back() != ']') {
                error = where() + "unterminated section header";
                return false;
            }
            section = line.substr(1, line.size() - 2);
            if (section != "formats" && section != "rules" && section != "global" && section != "levels")
                out.warnings.push_back(where() + "unknown section [" + section + "] ignored");
            continue;
        }
        if (section.empty()) {
            error = where() + "text before the first section";
            return false;
        }
        std::string lineError;
        if (section == "formats") {
            if (!parseFormatLine(line, out, lineError)) {
                error = where() + lineError;
                return false;
            }
        } else if (section == "rules") {
            if (parseRuleLine(line, where(), out, lineError) < 0) {
                error = where() + lineError;
                return false;
            }
        } else if (section == "global" || section == "levels") {
            out.warnings.push_back(where() + "[" + section + "] settings are not supported, ignored");
        }
    }
    return true;
}

}  // namespace lumbra::zlogconf
