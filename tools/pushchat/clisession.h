#ifndef PUSHCHAT_CLI_CLISESSION_H
#define PUSHCHAT_CLI_CLISESSION_H

// One login of the client: the library façade with the client's callback
// object, configured from the command line.
//
// login() starts the connection and waits on the calling thread until the
// library reports it (onConnected), a termination signal arrives, or the
// connect timeout passes, whichever comes first. logout() (also done by
// the destructor) logs out in order; the library waits there for the
// broker to acknowledge what was published.

#include "eventflag.h"
#include "jsonevents.h"
#include "message_lib.h"

class CliOptions;
class JsonLineWriter;
class TerminationSignals;

class CliSession {
public:
    enum class Outcome { Connected, Interrupted, TimedOut };

    /// `writer` may be null (events are then not printed); everything is
    /// borrowed and must outlive the session.
    CliSession(const CliOptions &options, TerminationSignals &termination, JsonLineWriter *writer);
    ~CliSession();
    CliSession(const CliSession &) = delete;
    CliSession &operator=(const CliSession &) = delete;

    /// False if the session could not set up its wake-up descriptor.
    bool valid() const { return m_connected.valid(); }
    Outcome login();
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
