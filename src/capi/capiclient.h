#ifndef PUSHCHAT_CAPICLIENT_H
#define PUSHCHAT_CAPICLIENT_H

// CapiClient: what a pushchat_client handle is. It owns a façade, the
// callback object that turns the façade's callbacks into JSON events, the
// bounded queue those events wait in, a thread for the blocking requests,
// and a hold on the process's Qt application object (see capieventloop.h).
//
// send() checks a request against the operations' table (capioperation.h)
// and runs it: a malformed one gives an error event naming what is wrong,
// a good one its result event, both with the caller's "id". Requests from
// several threads run side by side, except login and logout, which run
// alone (the façade must not log out while another thread sends).
//
// close() ends the client's work in this order: no new request; the
// blocking thread's request interrupted and the thread joined; a logout;
// the queue closed, which wakes the receivers and waits until they left.
// The destructor closes; the members then go in reverse order, the hold on
// the application object last.

#include "capiconfig.h"
#include "capieventloop.h"
#include "capieventqueue.h"
#include "capievents.h"
#include "capiworker.h"

#include <pushchat/message_lib.h>

#include <QJsonValue>

#include <atomic>
#include <memory>
#include <shared_mutex>
#include <string>

class CapiArguments;
class CapiOperation;

class CapiClient {
public:
    /// A client for the configuration `text`, or null with `error` set.
    static std::unique_ptr<CapiClient> create(const char *text, QString &error);
    ~CapiClient();
    CapiClient(const CapiClient &) = delete;
    CapiClient &operator=(const CapiClient &) = delete;

    /// A pushchat_status.
    int send(const char *request);
    const char *receive(int timeoutMs) { return m_queue.pop(timeoutMs); }
    int eventFd() const { return m_queue.fd(); }
    void close();

private:
    explicit CapiClient(const CapiConfig &config);
    /// Runs a checked request and queues its result event.
    void run(const CapiOperation &operation, const CapiArguments &arguments, const QJsonValue &id);
    void reportError(const QJsonValue &id, const QString &op, const QString &error);

    const CapiConfig m_config;
    CapiEventLoop m_eventLoop;
    CapiEventQueue m_queue;
    CapiEvents m_events;
    Message_lib m_library;
    std::shared_mutex m_sends; // held by every send, taken alone by close, which waits for them
    std::shared_mutex m_calls; // shared by requests, taken alone by login, logout and close
    CapiWorker m_worker;
    std::atomic<bool> m_closed{ false };
    std::once_flag m_closing;
};

#endif // PUSHCHAT_CAPICLIENT_H
