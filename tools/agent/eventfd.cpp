#include "eventfd.h"

#include <cstdint>
#include <sys/eventfd.h>

namespace agent {

EventFd::EventFd() : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void EventFd::notify()
{
    uint64_t one = 1;
    ssize_t ignored = write(m_fd.get(), &one, sizeof one);
    (void)ignored;  // only fails when the counter is already huge, i.e. woken
}

void EventFd::drain()
{
    uint64_t count;
    ssize_t ignored = read(m_fd.get(), &count, sizeof count);
    (void)ignored;
}

}  // namespace agent
