// The part of the zlog configuration format that boxes use: [formats] and
// [rules]. Everything else is ignored with a warning.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace lumbra::zlogconf {

enum class LevelMatch { AtLeast, Exactly, Not, Any };
enum class Output { Stdout, Stderr, File };

struct Rule {
    std::string category;  // a name, or "*" for every category
    LevelMatch match = LevelMatch::AtLeast;
    int level = 0;
    Output output = Output::Stdout;
    std::string path;            // Output::File only
    uint64_t maxSize = 0;        // 0: the file is never rotated
    int maxFiles = 0;            // archives kept; 0: no limit
    std::string archivePattern;  // "#r" stands for the archive number
    std::string formatName;      // empty: the default format
    bool accepts(const std::string &cat, int lvl) const;
};

struct Config {
    std::map<std::string, std::string> formats;
    std::vector<Rule> rules;
    std::vector<std::string> warnings;
};

// Parses the text of a configuration file. Returns false with a reason in
// error when a line that belongs to the supported subset cannot be read.
bool parse(const std::string &text, Config &out, std::string &error);

// zlog's level names, upper case; 0 for an unknown name.
int levelFromName(const std::string &name);
const char *levelName(int level);

// "10MB" style sizes: k/m/g are powers of 1000, kb/mb/gb powers of 1024.
bool parseSize(const std::string &text, uint64_t &bytes);

}  // namespace lumbra::zlogconf
