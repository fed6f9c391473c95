#include "pty.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace plcsim {

namespace {

bool makeRaw(int fd)
{
    termios t{};
    if (tcgetattr(fd, &t) != 0)
        return false;
    cfmakeraw(&t);
    t.c_cflag |= CLOCAL | CREAD;
    return tcsetattr(fd, TCSANOW, &t) == 0;
}

// mkdir -p of the folders above path.
bool makeParents(const std::string &path)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string dir = path.substr(0, slash);
        if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    return true;
}

std::string readLink(const std::string &path)
{
    char buf[4096];
    const ssize_t n = ::readlink(path.c_str(), buf, sizeof buf - 1);
    return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

}  // namespace

bool Pty::open(std::string &error)
{
    m_master.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    const char *name = m_master.valid() && ::grantpt(m_master.get()) == 0 && ::unlockpt(m_master.get()) == 0
                           ? ::ptsname(m_master.get())
                           : nullptr;
    if (name)
        m_slave.reset(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    // Non-blocking, so that replies no one reads cannot stall the simulator.
    if (!name || !m_slave.valid() || !makeRaw(m_slave.get()) || !makeRaw(m_master.get()) ||
        ::fcntl(m_master.get(), F_SETFL, ::fcntl(m_master.get(), F_GETFL) | O_NONBLOCK) != 0) {
        error = std::strerror(errno);
        return false;
    }
    m_path = name;
    return true;
}

bool DeviceLink::create(const std::string &path, const std::string &target, std::string &error)
{
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0 && !S_ISLNK(st.st_mode)) {
        error = "exists and is not a symlink; left alone";
        return false;
    }
    // A fresh link renamed over the old one: the name never goes missing.
    const std::string temp = path + ".plcsim-" + std::to_string(::getpid());
    ::unlink(temp.c_str());
    if (!makeParents(path) || ::symlink(target.c_str(), temp.c_str()) != 0 ||
        ::rename(temp.c_str(), path.c_str()) != 0) {
        error = std::strerror(errno);
        ::unlink(temp.c_str());
        return false;
    }
    m_path = path;
    m_target = target;
    return true;
}

DeviceLink::~DeviceLink()
{
    if (!m_path.empty() && readLink(m_path) == m_target)
        ::unlink(m_path.c_str());
}

}  // namespace plcsim
