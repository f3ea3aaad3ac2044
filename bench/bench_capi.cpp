// The C interface's cost beside the façade's, through a loopback mosquitto:
//   roundTrip/facade  alice sends, bob's callback answers from the delivery
//                     thread, alice's callback wakes the sender: one chat
//                     round trip, C++ callbacks only;
//   roundTrip/capi    the same with two C clients: bob's thread receives and
//                     answers, alice's sender receives the answer;
//   events/capi       events per second out of pushchat_receive: the results
//                     of vcard requests (no network), taken as JSON texts.
// bench/bench_python.py runs these beside the Python figures. The broker is
// started once per run.

#include "mosquittobroker.h"

#include <pushchat/message_lib.h>
#include <pushchat/pushchat_c.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

MosquittoBroker &broker()
{
    static MosquittoBroker instance;
    if (!instance.running() && !instance.start())
        std::abort();
    return instance;
}

class Echo : public ImEventReciever {
public:
    std::mutex mutex;
    std::condition_variable arrived;
    int received = 0, connects = 0;
    void onConnected() override
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ++connects;
        arrived.notify_all();
    }
    void onMessageReceive(QString, QString, QString, int, int, QString, QString, bool) override
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ++received;
        arrived.notify_all();
    }
    template <class Condition> bool wait(Condition condition)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, std::chrono::seconds(10), condition);
    }
};

void facadeRoundTrip(benchmark::State &state)
{
    Echo alice, bob;
    Message_lib a(&alice, nullptr, "bench-capi-a", ""), b(&bob, nullptr, "bench-capi-b", "");
    a.registerToImServer(broker().host(), broker().port(), "alice", "", 0, "im", "");
    b.registerToImServer(broker().host(), broker().port(), "bob", "", 0, "im", "");
    if (!alice.wait([&] { return alice.connects > 0; }) || !bob.wait([&] { return bob.connects > 0; }))
        return state.SkipWithError("no connection");
    // Bob answers from a thread of his own, as bob's thread does below.
    std::atomic<bool> done{ false };
    std::thread echo([&] {
        for (int answered = 0; bob.wait([&] { return done || bob.received > answered; }) && !done; ++answered)
            b.sendTextMessageTo("", "alice", 0, "pong", BODY_TYPE_DEFAULT, false, "k", "st");
    });
    for (auto _ : state) {
        const int before = alice.received;
        a.sendTextMessageTo("", "bob", 0, "ping", BODY_TYPE_DEFAULT, false, "k", "st");
        if (!alice.wait([&] { return alice.received > before; })) {
            state.SkipWithError("no answer");
            break;
        }
    }
    {
        const std::lock_guard<std::mutex> lock(bob.mutex);
        done = true;
        bob.arrived.notify_all();
    }
    echo.join();
}

// The next event of `client` that holds `text`.
bool awaitEvent(pushchat_client *client, const char *text)
{
    for (const char *event; (event = pushchat_receive(client, 10000)) != nullptr;)
        if (std::strstr(event, text) != nullptr)
            return true;
    return false;
}

pushchat_client *cClient(const char *user)
{
    const std::string config = std::string(R"({"domain":"im","user":")") + user + R"(","device":"bench-capi-)" + user +
                               R"(","brokers":["127.0.0.1:)" + std::to_string(broker().port()) + R"("]})";
    pushchat_client *client = pushchat_client_new(config.c_str(), nullptr, 0);
    pushchat_send(client, R"({"op":"login"})");
    return awaitEvent(client, R"("onConnected")") ? client : nullptr;
}

void capiRoundTrip(benchmark::State &state)
{
    pushchat_client *alice = cClient("calice"), *bob = cClient("cbob");
    if (alice == nullptr || bob == nullptr)
        return state.SkipWithError("no connection");
    std::thread echo([bob] {
        while (awaitEvent(bob, R"("onMessageReceive")"))
            pushchat_send(bob, R"({"op":"chat","to":"calice","text":"pong"})");
    });
    for (auto _ : state) {
        pushchat_send(alice, R"({"op":"chat","to":"cbob","text":"ping"})");
        if (!awaitEvent(alice, R"("onMessageReceive")")) {
            state.SkipWithError("no answer");
            break;
        }
    }
    pushchat_client_free(bob); // wakes the echo thread
    echo.join();
    pushchat_client_free(alice);
}

void capiEvents(benchmark::State &state)
{
    pushchat_client *client = pushchat_client_new(R"({"user":"events","device":"bench-capi-events"})", nullptr, 0);
    const int batch = 1000;
    for (auto _ : state) {
        for (int i = 0; i < batch; ++i)
            pushchat_send(client, R"({"op":"vcard","text":"v"})");
        for (int i = 0; i < batch; ++i)
            benchmark::DoNotOptimize(pushchat_receive(client, 1000));
    }
    state.counters["events/s"] = benchmark::Counter(double(state.iterations()) * batch, benchmark::Counter::kIsRate);
    pushchat_client_free(client);
}

} // namespace

BENCHMARK(facadeRoundTrip)->Name("roundTrip/facade")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(capiRoundTrip)->Name("roundTrip/capi")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(capiEvents)->Name("events/capi")->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
