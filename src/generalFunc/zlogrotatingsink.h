// File output with zlog's size rotation: when the file would pass maxSize it
// becomes archive 0, older archives move up by one, and at most maxFiles
// archives are kept (0: all of them).
#pragma once

#include <spdlog/details/file_helper.h>
#include <spdlog/sinks/base_sink.h>

#include <mutex>
#include <string>

namespace lumbra {

// Creates the log file (and its folders) readable by its owner only, and
// takes group and other rights from one made by an earlier version: log
// lines may carry what an operator would rather keep to himself.
void restrictLogFile(const std::string &path);

class ZlogRotatingSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    ZlogRotatingSink(std::string path, uint64_t maxSize, int maxFiles, std::string archivePattern);

protected:
    void sink_it_(const spdlog::details::log_msg &msg) override;
    void flush_() override;

private:
    std::string archiveName(int index) const;
    void rotate();

    std::string m_path;
    uint64_t m_maxSize;
    int m_maxFiles;
    std::string m_archivePattern;
    spdlog::details::file_helper m_file;
    uint64_t m_size = 0;
};

}  // namespace lumbra
