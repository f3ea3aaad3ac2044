#include "eventflag.h"

#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

EventFlag::EventFlag() : m_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{ }

EventFlag::~EventFlag()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

void EventFlag::raise()
{
    const std::uint64_t one = 1;
    // Only fails when the counter would overflow, which leaves it raised.
    [[maybe_unused]] const ssize_t written = ::write(m_fd, &one, sizeof one);
}

bool EventFlag::clear()
{
    std::uint64_t count = 0;
    return ::read(m_fd, &count, sizeof count) == static_cast<ssize_t>(sizeof count) && count > 0;
}
