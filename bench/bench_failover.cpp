// Broker failover, end to end: two mosquitto brokers joined by mosquitto's
// bridge, alice logged in to the first with the second as her failover
// broker, bob on the second. Each iteration stops the first broker
// (SIGTERM), has alice send bob a message at once and times how long it
// takes to reach him: the link loss noticed, the reconnection delay, the
// connect to the second broker and the resend of what waited meanwhile.
// Reported with the default reconnection delays (0.5 s, randomised down to
// half) and with 50 ms. PUSHCHAT_BENCH_SMOKE=1 runs one iteration of each.

#include "message_lib.h"
#include "mqttbench.h"

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace {

using benchmqtt::Clock;

// Remembers the bodies that arrived and lets the benchmark wait for one.
class Inbox : public ImEventReciever {
public:
    void onConnected() override { arrive("<connected>"); }
    void onMessageReceive(QString, QString, QString body, int, int, QString, QString, bool) override
    {
        arrive(body.toStdString());
    }
    bool waitFor(const std::string &body, std::chrono::seconds limit = std::chrono::seconds(20))
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return m_arrived.count(body) > 0; });
    }

private:
    void arrive(std::string body)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_arrived.insert(std::move(body));
        }
        m_changed.notify_all();
    }
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::set<std::string> m_arrived;
};

void send(Message_lib &from, const char *to, const std::string &text)
{
    from.sendTextMessageTo("", to, 0, QString::fromStdString(text), BODY_TYPE_DEFAULT, false, "k", "st");
}

void failover(benchmark::State &state, std::chrono::milliseconds delay)
{
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        MosquittoBroker first;
        if (!first.start()) {
            state.SkipWithError("first broker did not start");
            return;
        }
        MosquittoBroker second({ true, false,
            "connection first\naddress 127.0.0.1:" + std::to_string(first.port()) + "\ntopic # both 2\n" });
        if (!second.start()) {
            state.SkipWithError("second broker did not start");
            return;
        }
        Inbox aliceInbox, bobInbox;
        auto alice = std::make_unique<Message_lib>(&aliceInbox, nullptr, "bench-a", "bench");
        auto bob = std::make_unique<Message_lib>(&bobInbox, nullptr, "bench-b", "bench");
        PushClientOptions options;
        options.reconnectDelayMin = delay;
        options.failover = { { second.host(), second.port() } };
        alice->setPushClientOptions(options);
        if (alice->registerToImServer(first.host(), first.port(), "alice", "", 0, "im.test", "") != 1 ||
            bob->registerToImServer(second.host(), second.port(), "bob", "", 0, "im.test", "") != 1 ||
            !aliceInbox.waitFor("<connected>") || !bobInbox.waitFor("<connected>")) {
            state.SkipWithError("brokers or clients did not start");
            return;
        }
        // Until the bridge carries alice's messages to bob.
        bool bridged = false;
        for (int i = 0; i < 100 && !bridged; ++i) {
            const std::string probe = "probe " + std::to_string(round) + "." + std::to_string(i);
            send(*alice, "bob", probe);
            bridged = bobInbox.waitFor(probe, std::chrono::seconds(1));
        }
        if (!bridged) {
            state.SkipWithError("the bridge carried nothing");
            return;
        }
        const std::string text = "after the failover " + std::to_string(++round);
        state.ResumeTiming();

        const auto start = Clock::now();
        first.stop();
        send(*alice, "bob", text);
        if (!bobInbox.waitFor(text)) {
            state.SkipWithError("the message after the failover did not arrive");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        state.PauseTiming();
        alice.reset();
        bob.reset();
        state.ResumeTiming();
    }
}

} // namespace

int main(int argc, char **argv)
{
    const int iterations = benchmqtt::messageCount() < 20000 ? 1 : 10;
    benchmark::RegisterBenchmark(
        "Failover_kill_to_next_delivery/default_delays", failover, std::chrono::milliseconds(500))
        ->Iterations(iterations)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Failover_kill_to_next_delivery/50ms_delay", failover, std::chrono::milliseconds(50))
        ->Iterations(iterations)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
