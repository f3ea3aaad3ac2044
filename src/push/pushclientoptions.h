#ifndef PUSHCHAT_PUSHCLIENTOPTIONS_H
#define PUSHCHAT_PUSHCLIENTOPTIONS_H

/// \file
/// How the library connects to its MQTT brokers: TLS, credentials, further
/// brokers to fail over to, reconnection delays and outbox bounds; and why
/// the last connection attempt failed.
///
/// An application fills a PushClientOptions and hands it to
/// Message_lib::setPushClientOptions before logging in. The structure's
/// layout is part of the binary interface: fields are only ever added with a
/// new major version.

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

/// One broker: host name or address, and TCP port.
struct PushBrokerAddress {
    std::string host; ///< host name or IP address
    int port = 0;     ///< 1 to 65535
};

/// TLS to the broker. With `enabled` false every other field is ignored.
struct PushTlsOptions {
    bool enabled = false; ///< connect with TLS (1.2 at least)
    /// PEM file of the certificate authorities to trust. With neither
    /// `caFile` nor `caPath`, the system's trust store is used.
    std::string caFile;
    /// Directory of trusted CA certificates, in OpenSSL's hashed layout.
    std::string caPath;
    /// Client certificate (PEM), for brokers that ask for one; needs `keyFile`,
    /// and `caFile` or `caPath`.
    std::string certFile;
    /// The client certificate's private key (PEM, not encrypted).
    std::string keyFile;
    /// Accept any certificate for any host name. Anyone on the path can then
    /// read and change the traffic; a warning is logged at every connect.
    /// Only for tests against brokers with throw-away certificates.
    bool insecure = false;
};

/// Why the last connection attempt failed, or the link went down.
enum class PushConnectionError : int {
    None = 0,                ///< connected, or never tried
    Unreachable = 1,         ///< no TCP connection (refused, no route, unknown host, no answer); retried
    ConnectionLost = 2,      ///< an established link went down; retried
    TlsFailed = 3,           ///< the TLS handshake failed for another reason; retried
    CertificateRejected = 4, ///< the broker's certificate does not verify; not retried
    HostNameMismatch = 5,    ///< the certificate is not for the host name; not retried
    BadCredentials = 6,      ///< wrong user name or password; not retried
    NotAuthorised = 7,       ///< the broker refuses this client (e.g. anonymous); not retried
    Refused = 8,             ///< protocol version or client id refused; not retried
    ServerUnavailable = 9,   ///< the broker is unavailable for now; retried
    InvalidSettings = 10,    ///< the options cannot be used (e.g. an unreadable CA file); not tried
    /// Every broker (the login's and each failover broker) refused the TCP
    /// connection in turn: nothing listens on their ports; retried
    NothingListening = 11
};

/// True for the errors after which the client tries again on its own; after
/// the others it makes no further attempt until the next login.
inline bool isRetried(PushConnectionError error)
{
    return error == PushConnectionError::Unreachable || error == PushConnectionError::ConnectionLost ||
           error == PushConnectionError::TlsFailed || error == PushConnectionError::ServerUnavailable ||
           error == PushConnectionError::NothingListening;
}

/// Connection settings. Defaults: plain TCP, anonymous, one broker.
struct PushClientOptions {
    /// First wait before reconnecting; doubles after each failure.
    std::chrono::milliseconds reconnectDelayMin{ 500 };
    /// Longest wait before reconnecting.
    std::chrono::milliseconds reconnectDelayMax{ 30000 };
    /// Most requests the outbox keeps (capped at 65000, the MQTT message ids).
    std::size_t maxPendingMessages = 1000;
    /// Most bytes (topic + payload) the outbox keeps.
    std::size_t maxPendingBytes = 16u * 1024u * 1024u;
    /// How long closing waits for the broker to acknowledge what was sent.
    std::chrono::milliseconds closeTimeout{ 1000 };
    /// TLS; off by default.
    PushTlsOptions tls;
    /// User name sent in CONNECT; empty: none (anonymous).
    std::string username;
    /// Password sent with the user name.
    std::string password;
    /// Further brokers. After the broker given at login becomes unreachable
    /// or goes away, the client tries the next one in this list (then starts
    /// over), with the usual reconnection delays. Entries without a host or
    /// with a port outside 1 to 65535 are skipped.
    std::vector<PushBrokerAddress> failover;
};

#endif // PUSHCHAT_PUSHCLIENTOPTIONS_H
