#include "zlogrotatingsink.h"

#include <spdlog/details/os.h>

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace lumbra {
namespace {

bool exists(const std::string &path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

}  // namespace

void restrictLogFile(const std::string &path)
{
    spdlog::details::os::create_dir(spdlog::details::os::dir_name(path));
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) {
        fchmod(fd, 0600);
        ::close(fd);
    }
}

ZlogRotatingSink::ZlogRotatingSink(std::string path, uint64_t maxSize, int maxFiles,
                                   std::string archivePattern)
    : m_path(std::move(path)), m_maxSize(maxSize), m_maxFiles(maxFiles),
      m_archivePattern(std::move(archivePattern))
{
    restrictLogFile(m_path);
    m_file.open(m_path, false);
    m_size = m_file.size();
}

std::string ZlogRotatingSink::archiveName(int index) const
{
    std::string name = m_archivePattern;
    size_t p = name.find("#r");
    if (p == std::string::npos)
        return name + "." + std::to_string(index);
    return name.replace(p, 2, std::to_string(index));
}

void ZlogRotatingSink::rotate()
{
    m_file.close();
    int last = m_maxFiles - 1;
    if (m_maxFiles == 0) {  // keep every archive: shift up to the first gap
        last = 0;
        while (exists(archiveName(last)))
            ++last;
    }
    if (last >= 0) {
        for (int i = last; i > 0; --i) {
            std::string from = archiveName(i - 1);
            if (exists(from))
                std::rename(from.c_str(), archiveName(i).c_str());
        }
        std::rename(m_path.c_str(), archiveName(0).c_str());
    }
    restrictLogFile(m_path);
    m_file.open(m_path, true);
    m_size = 0;
}

void ZlogRotatingSink::sink_it_(const spdlog::details::log_msg &msg)
{
    spdlog::memory_buf_t line;
    formatter_->format(msg, line);
    if (m_maxSize > 0 && m_size > 0 && m_size + line.size() > m_maxSize)
        rotate();
    m_file.write(line);
    m_file.flush();
    m_size += line.size();
}

void ZlogRotatingSink::flush_()
{
    m_file.flush();
}

}  // namespace lumbra
