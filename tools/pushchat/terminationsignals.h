#ifndef PUSHCHAT_CLI_TERMINATIONSIGNALS_H
#define PUSHCHAT_CLI_TERMINATIONSIGNALS_H

// Turns SIGINT, SIGTERM and SIGHUP into a readable descriptor, so that the
// main thread can wait for them with poll(2) and then log out in order.
//
// Construct it first thing in main(), before any thread exists: the
// termination are blocked in the constructing thread and every thread started
// later inherits the mask, so none of them is ever interrupted. They stay
// blocked until the process ends (unblocking at destruction would deliver a
// second Ctrl-C with its default action in the middle of the logout).

#include <csignal>

class TerminationSignals {
public:
    TerminationSignals();
    ~TerminationSignals();
    TerminationSignals(const TerminationSignals &) = delete;
    TerminationSignals &operator=(const TerminationSignals &) = delete;

    /// False if the termination could not be blocked or the descriptor created.
    bool valid() const { return m_fd >= 0; }
    /// Readable while a termination signal is pending.
    int fd() const { return m_fd; }
    /// Consumes one pending signal without waiting; its number, or 0.
    int take();

private:
    int m_fd = -1;
};

#endif // PUSHCHAT_CLI_TERMINATIONSIGNALS_H
