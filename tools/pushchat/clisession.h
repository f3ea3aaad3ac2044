#ifndef PUSHCHAT_CLI_CLISESSION_H
#define PUSHCHAT_CLI_CLISESSION_H

// One login of the client: the library façade with the client's callback
// object, configured from the command line.
//
// login() starts the connection and waits on the calling thread until the
// library reports it (onConnected) or a refusal it will not retry (wrong
// credentials, a certificate that does not verify), every broker refused
// the TCP connection (nothing listens), a termination signal arrives, or
// the connect timeout passes, whichever comes first. Meanwhile the
// library's warnings are not printed: the caller tells what failed. wait() does the same for
// any other flag, such as the arrival of an awaited answer. logout() (also done by
// the destructor) logs out in order; the library waits there for the
// broker to acknowledge what was published.

#include "eventflag.h"
#include "jsonevents.h"

#include <pushchat/message_lib.h>

#include <chrono>
#include <functional>

class AwaitedEvent;
class CliOptions;
class JsonLineWriter;
class TerminationSignals;

class CliSession {
public:
    /// Refused: not retried by the library, or nothing listens.
    enum class Outcome {
        Connected,
        Refused,
        Interrupted,
        TimedOut
    };
    enum class Wait {
        Raised,
        Interrupted,
        TimedOut
    };

    /// `writer` may be null (events are then not printed), as may `awaited`
    /// (see jsonevents.h); everything is borrowed and must outlive the
    /// session. The options' saveImages() applies to the events.
    CliSession(const CliOptions &options, TerminationSignals &termination, JsonLineWriter *writer,
        AwaitedEvent *awaited = nullptr);
    ~CliSession();
    CliSession(const CliSession &) = delete;
    CliSession &operator=(const CliSession &) = delete;

    /// False if the session could not set up its wake-up descriptor.
    bool valid() const { return m_connected.valid(); }
    /// `started`, if given, runs once the login has started, before the
    /// wait (the library accepts sends then, which wait for the link).
    Outcome login(const std::function<void()> &started = {});
    /// Waits until `flag` is raised (and lowers it), a termination signal
    /// arrives (and is consumed), or `timeout` passes.
    Wait wait(EventFlag &flag, std::chrono::milliseconds timeout);
    /// Blocks until SIGINT, SIGTERM or SIGHUP; returns the signal number.
    int waitForTermination();
    void logout();
    Message_lib &library() { return m_library; }

private:
    const CliOptions &m_options;
    TerminationSignals &m_termination;
    EventFlag m_connected;
    JsonEvents m_events;
    Message_lib m_library; // declared last: destroyed before the callbacks
    bool m_loggedIn = false;
};

#endif // PUSHCHAT_CLI_CLISESSION_H
