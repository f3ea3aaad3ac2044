// What a single mosquitto keeps through SIGKILL, and what keeping it costs:
// alice sends bob (away, his session on the broker) numbered messages until
// every one is acknowledged; the broker is killed and started again on its
// files; bob logs in and counts what arrives. One run per setting:
//   0  persistence only (mosquitto's defaults: saved every 30 minutes and
//      at a clean shutdown);
//   1  autosave_on_changes true, autosave_interval 1 (saved after every
//      change);
//   2  autosave_on_changes true, autosave_interval 100.
// Counters: acknowledged, kept (arrived after the restart), lost, and the
// sending rate until the last acknowledgement. PUSHCHAT_BENCH_SMOKE=1
// shortens each run.

#include "facadeside.h"
#include "message_lib.h"
#include "messageprivate.h"
#include "mqttbench.h"
#include "pushclient.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace {

using benchmqtt::Clock;
using benchmqtt::until;
using namespace std::chrono_literals;

bool login(Message_lib &lib, Side &side, const MosquittoBroker &broker, const char *user)
{
    const int before = side.connects;
    lib.registerToImServer(broker.host(), broker.port(), user, QString(), 5, "bench.test", QString());
    return until([&] { return side.connects > before && lib.engine()->pendingCount() == 0; });
}

void killedBroker(benchmark::State &state)
{
    const char *settings[] = { "", "autosave_on_changes true\nautosave_interval 1",
        "autosave_on_changes true\nautosave_interval 100" };
    const int count = benchmqtt::messageCount() < 1000 ? 200 : 2000;
    MosquittoBroker broker{ MosquittoBroker::Options{ true, true, settings[state.range(0)] } };
    if (!broker.start()) {
        state.SkipWithError("the broker did not start");
        return;
    }
    Side aliceSide, bobSide;
    Message_lib alice(&aliceSide, nullptr, "dev-a", "A");
    double seconds = 0;
    int kept = 0;
    for (auto _ : state) {
        {
            // bob's session and subscription, then he goes away without
            // logging out (a logout would end his subscriptions).
            std::string id = "bob@bench.test@dev-b";
            PushClient away(id.data());
            away.start_connect(broker.host(), broker.port(), 60);
            until([&] { return away.state() == PushClient::State::Online; });
            away.subscribe({ "m/i/bob@bench.test/#" }, 2);
            until([&] { return away.pendingCount() == 0; });
        }
        broker.signal(SIGUSR1); // the session on disk in every setting
        std::this_thread::sleep_for(500ms);
        if (!login(alice, aliceSide, broker, "alice")) {
            state.SkipWithError("alice did not log in");
            return;
        }
        const auto start = Clock::now();
        for (int i = 0; i < count; ++i)
            while (
                alice.sendTextMessageTo("", "bob", 5, QString("n %1").arg(i), BODY_TYPE_DEFAULT, false, "k", "st") == 0)
                std::this_thread::sleep_for(1ms);
        until([&] { return alice.engine()->pendingCount() == 0; });
        seconds = std::chrono::duration<double>(Clock::now() - start).count();
        broker.stop(SIGKILL);
        alice.unRegisterToImServer();
        if (!broker.start()) {
            state.SkipWithError("the broker did not start again");
            return;
        }
        bobSide.messages = 0;
        Message_lib bob(&bobSide, nullptr, "dev-b", "B");
        login(bob, bobSide, broker, "bob");
        for (int before = -1; before != bobSide.messages; std::this_thread::sleep_for(1s))
            before = bobSide.messages;
        kept = bobSide.messages;
    }
    state.counters["acknowledged"] = count;
    state.counters["kept"] = kept;
    state.counters["lost"] = count - kept;
    state.counters["msgs_per_s"] = count / seconds;
}
BENCHMARK(killedBroker)
    ->ArgName("setting")
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace

BENCHMARK_MAIN();
