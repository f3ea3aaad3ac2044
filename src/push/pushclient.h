#ifndef PUSHCLIENT_H
#define PUSHCLIENT_H

// PushClient: a generic MQTT 3.1.1 client over libmosquitto; it knows nothing
// of what topics and payloads mean.
//
// Ownership: the caller owns the client and its receiver (never deleted by the
// client; destroy the client first). Callback arguments live for the call only.
//
// Threads: each client has its own network thread (from start_connect); every
// callback runs there, one at a time, outside libmosquitto's locks, so it may
// call publish/subscribe/unsubscribe/will_set, which any thread may call. Keep
// callbacks short (the link, keepalive included, waits for them). Call
// setEventRecv before start_connect.
//
// Session: stable client id, clean session off, retain always false (the
// argument is ignored). Subscriptions are at QoS 1 unless asked otherwise:
// messages published at QoS 2 arrive at QoS 1, at least once, and a repeat
// is dropped (see Redeliveries). QoS 2 delivery would keep a half-received
// message per id across reconnections, which a broker that lost its state
// (killed, restored from an older save) never releases: a later message
// reusing the id would then never be delivered. connectStatus(true) follows every
// accepted CONNACK, connectStatus(false) every going offline (link lost, first
// attempt failed, connection refused); they alternate.
//
// Reconnection: automatic, after 0.5 s doubling to 30 s (reconnectDelayMin/
// Max), each wait randomised down to half; reset once a link has lasted 10 s.
// An attempt without CONNACK within the keepalive (30 s at most) has failed.
// Each failed attempt or lost link moves on to the next broker of the
// failover list (after the start_connect target), round and round.
// A refusal retrying cannot fix (CONNACK 1, 2, 4, 5: protocol, id, credentials,
// not authorised; a certificate or host name that does not verify; unusable
// settings) is reported once and not retried until start_connect again.
//
// Security (PushClientOptions): TLS 1.2 or later with the server certificate
// and host name verified against the given CAs or the system's store, an
// optional client certificate; user name and password in CONNECT.
//
// Dead links: online, a broker that has sent nothing for 1.4 × keepalive is
// taken for gone (a live one answers each ping within the keepalive), and the
// link is dropped without DISCONNECT and reconnected.
//
// Redeliveries: a QoS 1/2 delivery whose topic and payload bytes equal one of
// the last 4096 delivered within 5 minutes is a transport redelivery (after
// a broker restart or a lost link): it is dropped, not passed on, and
// counted (repeatsDropped). QoS 0 deliveries are always passed on.
//
// Large deliveries: with setIncomingLimit, a delivery whose payload is longer
// than the limit is not copied: the receiver gets its topic, its length and
// an empty payload, and decides (libmosquitto itself has read the packet
// whole; a broker's max_packet_size bounds that).
//
// Outbox: QoS 1/2 publications count until the broker acknowledges them; those
// made offline (and subscribe/unsubscribe requests) wait in order for the next
// CONNACK. At most maxPendingMessages (1000) and maxPendingBytes (16 MiB of
// topic + payload), online or not: when full, the new request is refused with
// PushResult::OutboxFull and the accepted ones are kept. QoS 0 is never kept
// (offline: PushResult::NotConnected). Nothing goes to disk.
//
// Destruction: waits up to closeTimeout (1 s) for pending acknowledgements,
// then up to 0.25 s for a clean DISCONNECT (no will), stops the thread; no
// callback runs after it returns. From inside the client's own callback it is
// allowed: no further callback runs, and the thread disconnects cleanly and
// ends by itself. A callback must not wait for a thread destroying the client.

#include "pushclientoptions.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Callback interface, called on the client's network thread.
class PushEventReciever {
public:
    // Legacy slot: never called by PushClient.
    virtual void messgeRecieved(char *topic, char *payload);
    // One incoming message: (message id, topic, payload, payload length, qos,
    // retain). Topic and payload are NUL-terminated copies (the payload may
    // also hold NUL bytes of its own: use the length for binary data).
    virtual void messgeRecievedMore(int mid, char *topic, void *payload, int payloadlen, int qos, bool retain) = 0;
    virtual void connectStatus(bool connected) = 0;
    // The first SUBACK of this client that grants less than was asked:
    // a lower delivery level (a broker without QoS 2), or 128 (refused).
    // Called once per client; by default nothing is done.
    virtual void subscriptionGranted(int requested, int granted);
    // The broker acknowledged the publication made with this ticket (see
    // publish). By default nothing is done.
    virtual void published(std::uint64_t ticket);
    virtual ~PushEventReciever();
};

// Results of the operations that return int; 0 is success.
enum class PushResult : int {
    Ok = 0,
    InvalidArgument = 1, // bad topic, qos, keepalive, port or client id
    NotConnected = 2,    // QoS 0 publication while offline
    OutboxFull = 3,      // pending bound reached; the request was not taken
    Failed = 4,          // libmosquitto failed (out of memory, ...)
};

class PushConnection;

class PushClient {
public:
    enum class State {
        Idle,       // start_connect not called yet
        Connecting, // an attempt is under way or waiting for its turn
        Online,     // CONNACK accepted, link up
        Refused,    // the broker refused the connection; no more attempts
    };

    explicit PushClient(char *clientId);
    PushClient(char *clientId, const PushClientOptions &options);
    ~PushClient();
    PushClient(const PushClient &) = delete;
    PushClient &operator=(const PushClient &) = delete;

    void setEventRecv(PushEventReciever *receiver);
    // Last will, sent with the next CONNECT; used by the broker only if the
    // link dies without DISCONNECT. A null topic clears it.
    int will_set(const char *topic, char *payload, int qos, bool retain);
    // Starts connecting on the network thread and returns at once. keepalive
    // is in seconds: 0 turns it off, 1 to 4 are raised to 5 (libmosquitto's
    // minimum). Calling it again sets the target of later attempts and, when
    // offline or refused, makes an attempt at once.
    int start_connect(const char *host, int port, int keepalive);
    int subscribe(char *topic);
    // Several filters, in SUBSCRIBE packets of up to 256 filters each (one
    // request of the outbox per packet). Any invalid filter refuses all.
    int subscribe(const std::vector<std::string> &filters, int qos = 1);
    int unsubscribe(const char *topic);
    int unsubscribe(const std::vector<std::string> &filters);
    // payload is NUL-terminated text; qos is 0, 1 or 2. A non-zero ticket
    // of a QoS 1/2 publication is handed to the receiver's published() once
    // the broker has acknowledged it.
    int publish(const char *topic, const char *payload, int qos, bool retain, std::uint64_t ticket = 0);

    State state() const;
    // Why the last attempt failed or the link went down (None once a
    // CONNACK was accepted), and a text for people: libmosquitto's and
    // OpenSSL's reason where there is one.
    PushConnectionError lastError() const;
    std::string lastErrorText() const;
    // What is not yet done: QoS 1/2 publications not acknowledged by the
    // broker and requests waiting for the link (these two count against the
    // outbox bound), plus SUBSCRIBE/UNSUBSCRIBE packets the broker has not
    // answered yet (0 means every subscription asked for is in force).
    std::size_t pendingCount() const;
    // Transport redeliveries dropped so far.
    std::size_t repeatsDropped() const;
    // Payloads longer than `bytes` reach the receiver empty, with their
    // length (0, the default: no limit). Any thread.
    void setIncomingLimit(std::size_t bytes);
    // The highest delivery level used from now on for publications, the
    // will and subscriptions (2, the default; 1 for a broker without QoS 2):
    // a higher one asked for is lowered to it. Call it before start_connect.
    void setMaxQos(int qos);

private:
    std::shared_ptr<PushConnection> m_connection;
};

#endif // PUSHCLIENT_H
