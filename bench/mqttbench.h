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
        std::lock_guard<std::mutex> lock(m_mutex);
        m_count = 0;
        m_target = target;
        m_wake = target;
    }
    void arrived()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (++m_count >= m_wake)
            m_changed.notify_all();
    }
    long count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }
    // Until the count reaches `value`; false on timeout.
    bool waitUntil(long value, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake = value;
        const bool ok = m_changed.wait_for(lock, timeout, [&] { return m_count >= value; });
        m_wake = m_target;
        return ok;
    }
    // Until the count reaches the target given to reset.
    bool wait(std::chrono::milliseconds timeout)
    {
        long target;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            target = m_target;
        }
        return waitUntil(target, timeout);
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    long m_count = 0;
    long m_target = 0;
    long m_wake = 0;
};

// A flag one thread raises and another waits for (a connection coming up).
class Flag {
public:
    void set(bool value)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_value = value;
        m_changed.notify_all();
    }
    bool waitSet(std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_value; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_value = false;
};

// A bare libmosquitto client with the push client's session and socket
// options (MQTT 3.1.1, clean session off, its own network thread from
// mosquitto_loop_start), publishing and subscribing at QoS 2. Every message
// it receives counts as an arrival; with echoTo it is also published back.
class BareClient {
public:
    BareClient(const std::string &id, bool noDelay, Arrivals &arrivals) : m_arrivals(arrivals)
    {
        m_mosq = mosquitto_new(id.c_str(), false, this);
        mosquitto_int_option(m_mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
        mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, noDelay ? 1 : 0);
        mosquitto_connect_callback_set(
            m_mosq, [](mosquitto *, void *self, int rc) { static_cast<BareClient *>(self)->signal(rc == 0 ? 1 : -1); });
        mosquitto_subscribe_callback_set(
            m_mosq, [](mosquitto *, void *self, int, int, const int *) { static_cast<BareClient *>(self)->signal(2); });
        mosquitto_message_callback_set(m_mosq, [](mosquitto *m, void *self, const mosquitto_message *message) {
            auto *client = static_cast<BareClient *>(self);
            if (client->m_echoTopic)
                mosquitto_publish(m, nullptr, client->m_echoTopic, message->payloadlen, message->payload, 2, false);
            client->m_arrivals.arrived();
        });
    }
    ~BareClient()
    {
        mosquitto_disconnect(m_mosq);
        mosquitto_loop_stop(m_mosq, false);
        mosquitto_destroy(m_mosq);
    }
    BareClient(const BareClient &) = delete;
    BareClient &operator=(const BareClient &) = delete;

    bool connect(const MosquittoBroker &broker)
    {
        mosquitto_connect(m_mosq, broker.host(), broker.port(), 60);
        mosquitto_loop_start(m_mosq);
        return waitFor(1);
    }
    bool subscribe(const char *topic)
    {
        mosquitto_subscribe(m_mosq, nullptr, topic, 2);
        return waitFor(2);
    }
    void echoTo(const char *topic) { m_echoTopic = topic; } // before subscribing
    int publish(const char *topic, const std::string &payload)
    {
        return mosquitto_publish(m_mosq, nullptr, topic, static_cast<int>(payload.size()), payload.data(), 2, false);
    }

private:
    void signal(int what)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_event = what;
        m_changed.notify_all();
    }
    bool waitFor(int what)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const bool ok = m_changed.wait_for(lock, std::chrono::seconds(10), [&] { return m_event == what; });
        m_event = 0;
        return ok;
    }

    mosquitto *m_mosq = nullptr;
    Arrivals &m_arrivals;
    const char *m_echoTopic = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_event = 0;
};

} // namespace benchmqtt

#endif // PUSHCHAT_BENCH_MQTTBENCH_H
