#ifndef PUSHCHAT_CLI_COMMANDRUNNER_H
#define PUSHCHAT_CLI_COMMANDRUNNER_H

// Runs the command of a parsed command line and returns the process's exit
// status (exitcode.h). Failures are reported as one line on stderr.
//
// listen prints the library's events on `out` until a termination signal,
// then logs out and returns 0. send, location, status, room, friend and rdp
// log in, wait for the connection, make one call to the library, log out in
// order and return 0 only if the library published (roomrequest.h tells the
// two room requests the library reports nothing for). history logs in, asks
// and prints the answering event on `out`: over the push channel the first
// one that arrives within the timeout, over HTTP the one the blocking call
// delivers within the timeout (its deadline), which must not be empty: the
// library's reason is printed when there is none. A termination signal
// ends either wait at once. With --store, send also queues its message
// when no connection is made (exit 5), flush sends what is queued, and
// log, search, conversations and read work on the store alone.

#include "exitcode.h"

#include <QString>

#include <cstdio>
#include <functional>

class CliOptions;
class CliSession;
class Message_lib;
class TerminationSignals;

class CommandRunner {
public:
    /// Everything is borrowed. `out` receives the events of listen.
    CommandRunner(const CliOptions &options, TerminationSignals &termination, std::FILE *out);

    ExitCode run();

private:
    ExitCode listen();
    ExitCode send();
    ExitCode location();
    ExitCode status();
    ExitCode history();
    /// sendOnce for a parsed room, friend or rdp request.
    template <typename Request> ExitCode sendRequest(const Request &request);
    /// Logs in, runs `call` once connected (1 means published) and logs out.
    /// With `stored` (send --store) `call` also runs without a connection,
    /// and the run waits for the broker's acknowledgement of the store.
    ExitCode sendOnce(const char *what, const std::function<int(Message_lib &)> &call, bool stored = false);
    ExitCode flush();
    ExitCode readStore();
    /// Opens --store, if given; false (reported) when it cannot.
    bool openStore(Message_lib &library) const;
    ExitCode awaitStored(Message_lib &library) const;
    /// Logs in and waits; anything but Ok has been reported. `started` runs
    /// once the login has started (see CliSession::login).
    ExitCode connect(CliSession &session, const std::function<void()> &started = {});
    void fail(const QString &message) const;

    const CliOptions &m_options;
    TerminationSignals &m_termination;
    std::FILE *m_out;
};

#endif // PUSHCHAT_CLI_COMMANDRUNNER_H
