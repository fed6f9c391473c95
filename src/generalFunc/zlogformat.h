// Renders one log line from a zlog format pattern:
// %d(...) %ms %us %V %v %c %F %L %U %m %n %p %t %% with optional width ("%-5V").
#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace lumbra::zlogfmt {

struct Record {
    const char *category;
    int level;
    const char *file;  // as given by __FILE__
    const char *func;
    long line;
    const char *msg;
    size_t msgLen;
    timespec time;
};

class Format {
public:
    explicit Format(const std::string &pattern);
    void render(const Record &rec, std::string &out) const;

private:
    struct Op {
        char conv = 0;  // 0: literal text
        std::string text;  // the literal, or the time pattern of %d
        int width = 0;
        bool left = false;
    };
    void appendTime(const Op &op, const timespec &ts, std::string &out) const;
    std::vector<Op> m_ops;
};

// "generalFunc/generalFunc.cpp" -> "generalFunc/generalFunc": log lines name the
// module source, not the file.
std::string sourceName(const char *file);

}  // namespace lumbra::zlogfmt
