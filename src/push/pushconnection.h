#ifndef PUSHCONNECTION_H
#define PUSHCONNECTION_H

#include "pushbackoff.h"
#include "pushclient.h"
#include "pushduplicatefilter.h"
#include "pushoutbox.h"
#include "pushtopicrestorer.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct mosquitto;
struct mosquitto_message;

// The machinery behind PushClient: one libmosquitto handle driven by a
// network thread of our own with mosquitto_loop (libmosquitto's own loop
// thread and reconnect logic are not used). libmosquitto's callbacks only
// record events; the network thread acts on them and calls the receiver after
// mosquitto_loop has returned, so no libmosquitto lock is held during a
// receiver callback.
//
// Locking: m_mutex guards the link state, target, will and outbox, and is held
// across every call that hands a request to libmosquitto (so requests keep
// their order). m_eventMutex guards only the recorded events and is the one
// lock taken inside libmosquitto callbacks; nothing is called while holding
// it. Neither is held while a receiver callback runs.
//
// The network thread keeps a shared_ptr to this object, so it can finish a
// clean disconnect on its own when the client is destroyed from a callback.
//
// The implementation is split by job: pushconnection.cpp (life, state,
// closing), pushconnectiontls.cpp (credentials and TLS),
// pushconnectionoutbox.cpp (requests, the outbox and its pumping),
// pushconnectionfailover.cpp (attempts, refusals, failover),
// pushconnectionthread.cpp (the network thread and dead-link detection),
// pushconnectionevents.cpp (libmosquitto's callbacks and their handling).
// The locking rules above hold in all of them.
class PushConnection : public std::enable_shared_from_this<PushConnection> {
public:
    PushConnection(const char *clientId, const PushClientOptions &options);
    ~PushConnection();
    PushConnection(const PushConnection &) = delete;
    PushConnection &operator=(const PushConnection &) = delete;

    void setReceiver(PushEventReciever *receiver);
    int setWill(const char *topic, const char *payload, int qos);
    int start(const char *host, int port, int keepalive);
    int publish(const char *topic, const char *payload, int qos, std::uint64_t ticket = 0);
    int subscribe(const std::vector<std::string> &filters, int qos);
    int unsubscribe(const std::vector<std::string> &filters);
    PushClient::State state() const;
    std::size_t pendingCount() const;
    std::size_t repeatsDropped() const { return m_repeatsDropped; }
    void setIncomingLimit(std::size_t bytes) { m_incomingLimit = bytes; }
    void setMaxQos(int qos) { m_maxQos = qos < 0 ? 0 : qos > 2 ? 2 : qos; }
    std::pair<PushConnectionError, std::string> lastError() const;

    // No receiver callback starts after this. Joins the network thread, or,
    // when called on that thread (from a callback), leaves it to finish and
    // exit by itself.
    void close();

private:
    using Clock = std::chrono::steady_clock;

    enum class Link {
        Idle,
        Waiting,
        Connecting,
        Online,
        Refused
    };
    enum class Report {
        None,
        Online,
        Offline
    };

    struct Event {
        enum class Kind {
            Connack,
            Disconnected,
            Message,
            Published,
            Answered
        };
        Kind kind;
        int code; // CONNACK code, disconnect reason or message id
        std::string topic;
        std::string payload;
        int qos = 0;
        bool retain = false;
        std::size_t length = 0; // of a payload over the incoming limit, left out
        int systemError = 0;    // of a disconnection: errno as libmosquitto left it
    };

    struct Will {
        bool set = false;
        std::string topic;
        std::string payload;
        int qos = 0;
    };

    static void onConnect(mosquitto *, void *self, int code);
    static void onDisconnect(mosquitto *, void *self, int reason);
    static void onPublish(mosquitto *, void *self, int mid);
    static void onSubscribe(mosquitto *, void *self, int mid, int count, const int *granted);
    static void onUnsubscribe(mosquitto *, void *self, int mid);
    static void onMessage(mosquitto *, void *self, const mosquitto_message *message);
    static void onLog(mosquitto *, void *self, int level, const char *text);
    void record(Event event);
    void configureSecurity();

    // Network thread.
    void run();
    // Waits for traffic, a request or close(), at most until libmosquitto
    // has to send a keepalive or the link is to be judged dead; then lets
    // libmosquitto act on what is ready.
    int serviceLink();
    int waitMilliseconds(bool &silent);
    void wake();
    void attemptConnection();
    void processEvents();
    void handleConnack(int code);
    // The link is down or the attempt failed: `rc` is libmosquitto's
    // reason, `detail` a text for people (empty: from `rc`), `systemError`
    // the errno of MOSQ_ERR_ERRNO.
    void handleLinkDown(int rc, std::string detail = std::string(), int systemError = 0);
    void refuse(PushConnectionError error, std::string text);
    bool drainOutboxLocked();
    int sendLocked(const PushOutbox::Request &request);
    int request(PushOutbox::Request request);
    int requestFilters(PushOutbox::Request::Kind kind, const std::vector<std::string> &filters, int qos);
    void deliver(Event &message);
    void report(bool connected);
    void shutdown();
    void disconnectCleanly(Clock::time_point limit);

    const PushClientOptions m_options;
    mosquitto *m_mosq = nullptr;
    std::atomic<PushEventReciever *> m_receiver{ nullptr };
    std::atomic<bool> m_closing{ false };
    std::atomic<std::size_t> m_repeatsDropped{ 0 };
    std::atomic<std::size_t> m_incomingLimit{ 0 }; // 0: none
    std::atomic<int> m_maxQos{ 2 };                // the deployment's cap on every level
    int m_wakeFd = -1;                             // eventfd: requests and close() wake the network thread

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    Link m_link = Link::Idle;
    // The start target, then the failover brokers; attempts go to
    // m_brokers[m_brokerIndex].
    std::vector<PushBrokerAddress> m_brokers;
    int m_keepalive = 0;
    std::size_t m_brokerIndex = 0;
    std::size_t m_refusedInTurn = 0; // attempts in a row whose TCP connection was refused
    PushConnectionError m_error = PushConnectionError::None;
    std::string m_errorText;
    std::string m_settingsError; // set by the constructor only
    Will m_will;
    PushOutbox m_outbox;
    PushTopicRestorer m_topics; // the filters held (own lock), for brokers that deliver a topic's dots as '/'
    PushBackoff m_backoff;
    Clock::time_point m_nextAttempt;
    Clock::time_point m_connectedAt;
    Clock::time_point m_attemptStartedAt;
    std::thread m_thread;

    std::mutex m_eventMutex;
    std::vector<Event> m_events;
    std::string m_libraryErrors; // libmosquitto's error log lines since the attempt began

    // Network thread only.
    std::vector<Event> m_batch;
    Report m_lastReport = Report::None;
    PushDuplicateFilter m_repeats;
    bool m_lowerGrantTold = false;
    std::uint64_t m_connections = 0; // connections made; the network thread's alone
};

#endif // PUSHCONNECTION_H
