#ifndef PUSHCHAT_CLI_CONNECTIONFAILURE_H
#define PUSHCHAT_CLI_CONNECTIONFAILURE_H

// The one line the client prints when it made no connection: what
// happened, at which broker, and what to check (the option or the file to
// look at), from the library's last connection error and its text.

#include <pushchat/pushclientoptions.h>

#include <QString>

#include <chrono>
#include <optional>

class ConnectionFailure {
public:
    /// For a login to `host`:`port` with `push` (TLS, credentials, failover
    /// brokers): `error` and `text` as Message_lib::lastConnectionError()
    /// and lastConnectionErrorText() gave them; `waited`, when the caller
    /// gave up while the library was still trying, how long it waited. No
    /// full stop at the end.
    static QString describe(const QString &host, int port, const PushClientOptions &push, PushConnectionError error,
        const QString &text, std::optional<std::chrono::milliseconds> waited);
};

#endif // PUSHCHAT_CLI_CONNECTIONFAILURE_H
