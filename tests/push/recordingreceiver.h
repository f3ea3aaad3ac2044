#ifndef RECORDINGRECEIVER_H
#define RECORDINGRECEIVER_H

// PushClient test helpers: a receiver that records every callback and can be
// waited on, and a client factory with short reconnection delays.

#include "pushclient.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <string>
#include <vector>

struct ReceivedMessage
{
    int mid = 0;
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retain = false;
    bool nulTerminated = false; // payload[length] == '\0'
};

class RecordingReceiver : public PushEventReciever
{
public:
    // Hooks run on the client's network thread before the call is recorded.
    // Set them before the client connects.
    std::function<void(const ReceivedMessage&)> onMessage;
    std::function<void(bool)> onStatus;

    void messgeRecievedMore(int mid, char* topic, void* payload, int length, int qos, bool retain) override
    {
        const char* bytes = static_cast<const char*>(payload);
        ReceivedMessage message{mid, topic, std::string(bytes, static_cast<std::size_t>(length)), qos, retain,
                                bytes[length] == '\0'};
        if (onMessage)
            onMessage(message);
        std::lock_guard<std::mutex> lock(mutex_);
        messages_.push_back(std::move(message));
        changed_.notify_all();
    }

    void connectStatus(bool connected) override
    {
        if (onStatus)
            onStatus(connected);
        std::lock_guard<std::mutex> lock(mutex_);
        statuses_.push_back(connected);
        changed_.notify_all();
    }

    std::vector<ReceivedMessage> messages() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return messages_;
    }
    std::vector<bool> statuses() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return statuses_;
    }

    // Payloads received on `topic` (all when empty), in order.
    std::vector<std::string> payloads(const std::string& topic = std::string()) const
    {
        return select([&](const ReceivedMessage& m) { return topic.empty() || m.topic == topic; });
    }
    std::vector<std::string> payloadsAtQos(int qos) const
    {
        return select([&](const ReceivedMessage& m) { return m.qos == qos; });
    }

    bool waitForMessages(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        return waitUntil(timeout, [&] { return messages_.size() >= count; });
    }
    bool waitForPayload(const std::string& payload, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        return waitUntil(timeout, [&] {
            for (const ReceivedMessage& message : messages_) {
                if (message.payload == payload)
                    return true;
            }
            return false;
        });
    }
    // Waits until the reports so far are exactly `expected`.
    bool waitForStatuses(const std::vector<bool>& expected,
                         std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        return waitUntil(timeout, [&] { return statuses_ == expected; });
    }

private:
    template <class Keep>
    std::vector<std::string> select(Keep keep) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> result;
        for (const ReceivedMessage& message : messages_) {
            if (keep(message))
                result.push_back(message.payload);
        }
        return result;
    }
    template <class Condition>
    bool waitUntil(std::chrono::milliseconds timeout, Condition condition)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, condition);
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<ReceivedMessage> messages_;
    std::vector<bool> statuses_;
};

inline PushClientOptions fastReconnect()
{
    PushClientOptions options;
    options.reconnectDelayMin = std::chrono::milliseconds(20);
    options.reconnectDelayMax = std::chrono::milliseconds(200);
    return options;
}

inline std::unique_ptr<PushClient> makeClient(std::string id, PushEventReciever* receiver,
                                              const PushClientOptions& options = fastReconnect())
{
    auto client = std::make_unique<PushClient>(id.data(), options);
    client->setEventRecv(receiver);
    return client;
}

// Polls `condition` until it holds or the timeout passes.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    const auto limit = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= limit)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Subscribes and waits until the subscription is in force: `publisher`
// (which may be the subscriber itself) sends probes on probeTopic until one
// comes back.
inline bool subscribeConfirmed(PushClient& subscriber, RecordingReceiver& sink, PushClient& publisher,
                               std::string filter, const std::string& probeTopic)
{
    if (subscriber.subscribe(filter.data()) != 0)
        return false;
    const std::string probe = "probe:" + probeTopic;
    return eventually([&] {
        publisher.publish(probeTopic.c_str(), probe.c_str(), 2, false);
        return sink.waitForPayload(probe, std::chrono::milliseconds(100));
    });
}

inline std::size_t countOf(const std::string& text, const std::string& what)
{
    std::size_t count = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++count;
    return count;
}

#endif // RECORDINGRECEIVER_H
