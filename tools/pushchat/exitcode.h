#ifndef PUSHCHAT_CLI_EXITCODE_H
#define PUSHCHAT_CLI_EXITCODE_H

/// Exit statuses of the pushchat command-line client.
enum class ExitCode : int {
    Ok = 0,           ///< done; for the sending commands: published
    NotPublished = 1, ///< connected, but the library did not publish
    NotConnected = 2, ///< refused, nothing listening, or no connection within the timeout
    Failure = 3,      ///< the client could not set itself up
    NoAnswer = 4,     ///< history: no answer within the timeout; over HTTP none (reason printed) or an empty one
    Queued = 5,       ///< send, flush with --store: not (all) acknowledged; sent at the next login with the store
    Usage = 64,       ///< bad option, missing argument, unknown command, unreadable TLS or password file
    NoInput = 66,     ///< send: the --image file or the text (--text-file, stdin, TEXT) cannot be used
    Interrupted = 130 ///< SIGINT/SIGTERM before a command was sent, or while history waited
};

inline int toInt(ExitCode code)
{
    return static_cast<int>(code);
}

#endif // PUSHCHAT_CLI_EXITCODE_H
