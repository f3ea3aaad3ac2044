#include "terminationsignals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

TerminationSignals::TerminationSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0)
        m_fd = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

TerminationSignals::~TerminationSignals()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

int TerminationSignals::take()
{
    signalfd_siginfo info{};
    if (::read(m_fd, &info, sizeof info) != static_cast<ssize_t>(sizeof info))
        return 0;
    return static_cast<int>(info.ssi_signo);
}
