#ifndef PUSHCHAT_BENCH_MQTTBENCH_H
#define PUSHCHAT_BENCH_MQTTBENCH_H

// Helpers shared by the broker benchmarks: an arrival counter a sender can
// wait on, a bare libmosquitto client (the baseline every throughput figure
// is compared with), the message count, a median and a polling wait.
//
// PUSHCHAT_BENCH_SMOKE=1 in the environment selects the small message count.

#include "mosquittobroker.h"

#include <mosquitto.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace benchmqtt {

using Clock = std::chrono::steady_clock;

inline long messageCount()
{
    const char *smoke = std::getenv("PUSHCHAT_BENCH_SMOKE");
    return smoke && std::strcmp(smoke, "1") == 0 ? 500 : 20000;
}

// Polls `done` every millisecond until it holds or `limit` passes.
inline bool until(const std::function<bool()> &done, std::chrono::seconds limit = std::chrono::seconds(60))
{
    for (const auto end = Clock::now() + limit; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (Clock::now() > end)
            return false;
    return true;
}

// Whether this is a smoke run (PUSHCHAT_BENCH_SMOKE=1).
inline bool smoke()
{
    return messageCount() < 1000;
}

inline double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Counts arrivals; the sender waits until the count reaches its target, or
// (to pace itself) some lower count.
class Arrivals {
public:
    void reset(long target)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        count_ = 0;
        target_ = target;
        wake_ = target;
    }
    void arrived()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (++count_ >= wake_)
            changed_.notify_all();
    }
    long count()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_;
    }
    // Until the count reaches `value`; false on timeout.
    bool waitUntil(long value, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_ = value;
        const bool ok = changed_.wait_for(lock, timeout, [&] { return count_ >= value; });
        wake_ = target_;
        return ok;
    }
    // Until the count reaches the target given to reset.
    bool wait(std::chrono::milliseconds timeout)
    {
        long target;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            target = target_;
        }
        return waitUntil(target, timeout);
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    long count_ = 0;
    long target_ = 0;
    long wake_ = 0;
};

// A flag one thread raises and another waits for (a connection coming up).
class Flag {
public:
    void set(bool value)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        value_ = value;
        changed_.notify_all();
    }
    bool waitSet(std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return value_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool value_ = false;
};

// A bare libmosquitto client with the push client's session and socket
// options (MQTT 3.1.1, clean session off, its own network thread from
// mosquitto_loop_start), publishing and subscribing at QoS 2. Every message
// it receives counts as an arrival; with echoTo it is also published back.
class BareClient {
public:
    BareClient(const std::string &id, bool noDelay, Arrivals &arrivals) : arrivals_(arrivals)
    {
        mosq_ = mosquitto_new(id.c_str(), false, this);
        mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
        mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, noDelay ? 1 : 0);
        mosquitto_connect_callback_set(
            mosq_, [](mosquitto *, void *self, int rc) { static_cast<BareClient *>(self)->signal(rc == 0 ? 1 : -1); });
        mosquitto_subscribe_callback_set(
            mosq_, [](mosquitto *, void *self, int, int, const int *) { static_cast<BareClient *>(self)->signal(2); });
        mosquitto_message_callback_set(mosq_, [](mosquitto *m, void *self, const mosquitto_message *message) {
            auto *client = static_cast<BareClient *>(self);
            if (client->echoTopic_)
                mosquitto_publish(m, nullptr, client->echoTopic_, message->payloadlen, message->payload, 2, false);
            client->arrivals_.arrived();
        });
    }
    ~BareClient()
    {
        mosquitto_disconnect(mosq_);
        mosquitto_loop_stop(mosq_, false);
        mosquitto_destroy(mosq_);
    }
    BareClient(const BareClient &) = delete;
    BareClient &operator=(const BareClient &) = delete;

    bool connect(const MosquittoBroker &broker)
    {
        mosquitto_connect(mosq_, broker.host(), broker.port(), 60);
        mosquitto_loop_start(mosq_);
        return waitFor(1);
    }
    bool subscribe(const char *topic)
    {
        mosquitto_subscribe(mosq_, nullptr, topic, 2);
        return waitFor(2);
    }
    void echoTo(const char *topic) { echoTopic_ = topic; } // before subscribing
    int publish(const char *topic, const std::string &payload)
    {
        return mosquitto_publish(mosq_, nullptr, topic, static_cast<int>(payload.size()), payload.data(), 2, false);
    }

private:
    void signal(int what)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        event_ = what;
        changed_.notify_all();
    }
    bool waitFor(int what)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool ok = changed_.wait_for(lock, std::chrono::seconds(10), [&] { return event_ == what; });
        event_ = 0;
        return ok;
    }

    mosquitto *mosq_ = nullptr;
    Arrivals &arrivals_;
    const char *echoTopic_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    int event_ = 0;
};

} // namespace benchmqtt

#endif // PUSHCHAT_BENCH_MQTTBENCH_H
