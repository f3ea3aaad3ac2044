// Scale, end to end through a private broker:
//  - 10 000 rooms in the room-list reply: time from the reply's publication
//    to the broker's answer to the last SUBSCRIBE (every room topic in
//    force), at the first login and at each login again;
//  - chat bodies of 300 B, 64 KiB and 1 MiB from alice to bob: time per
//    message (a window of messages in flight) and the process's peak
//    resident memory above its level before (both clients live in it);
//  - an idle logged-in client: resident memory, and wake-ups per minute of
//    all the process's threads (context switches, voluntary or not).
// PUSHCHAT_BENCH_SMOKE=1 shortens each run.

#include "facadeside.h"
#include "groupevent.h"
#include "message_lib.h"
#include "messageprivate.h"
#include "mqttbench.h"
#include "processusage.h"
#include "pushclient.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

namespace {

using benchmqtt::Clock;
using benchmqtt::smoke;
using benchmqtt::until;
using namespace std::chrono_literals;

MosquittoBroker &broker()
{
    static MosquittoBroker shared;
    static const bool up = shared.start();
    if (!up)
        std::fprintf(stderr, "the broker did not start:\n%s\n", shared.log().c_str());
    return shared;
}

// Context switches of every thread of this process so far.
long switches()
{
    long total = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string key; status >> key;) {
            long value = 0;
            if ((key == "voluntary_ctxt_switches:" || key == "nonvoluntary_ctxt_switches:") && status >> value)
                total += value;
        }
    }
    return total;
}

bool login(Message_lib &lib, Side &side, const char *user)
{
    const int before = side.connects;
    lib.registerToImServer(broker().host(), broker().port(), user, QString(), 5, "scale.test", QString());
    return until([&] { return side.connects > before && lib.engine()->pendingCount() == 0; });
}

void idleClient(benchmark::State &state)
{
    const auto idle = smoke() ? 2s : 60s;
    Side side;
    Message_lib lib(&side, nullptr, "dev-idle", "Idle");
    if (!login(lib, side, "idle")) {
        state.SkipWithError("no login");
        return;
    }
    std::this_thread::sleep_for(2s);
    long wakeups = 0, rss = 0;
    for (auto _ : state) {
        const long before = switches();
        std::this_thread::sleep_for(idle);
        wakeups = switches() - before - 1; // this thread's own sleep
        rss = ProcessUsage::resident();
    }
    state.counters["rss_KiB"] = double(rss);
    state.counters["wakeups_per_min"] = double(wakeups) * 60.0 / double(idle.count());
    state.counters["threads"] = double(ProcessUsage::now().threads);
}
BENCHMARK(idleClient)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

void roomList(benchmark::State &state)
{
    const int rooms = smoke() ? 500 : 10000;
    QString json = QStringLiteral(R"({"jid":"rose@scale.test","rooms":[)");
    for (int i = 0; i < rooms; ++i)
        json += QStringLiteral(R"(%1{"room%2@rooms.scale.test":{}})").arg(i ? "," : "").arg(i);
    json += QStringLiteral("]}");
    std::string id = "scale-server";
    PushClient server(id.data());
    server.start_connect(broker().host(), broker().port(), 60);
    until([&] { return server.state() == PushClient::State::Online; });
    Side side;
    Message_lib rose(&side, nullptr, "dev-rose", "Rose");
    std::vector<double> times;
    for (auto _ : state) {
        if (!login(rose, side, "rose")) {
            state.SkipWithError("rose did not log in");
            return;
        }
        const GroupEvent reply = makeGroupEvent("rose@scale.test", GroupSub_Refresh, json, "server@scale.test");
        const auto start = Clock::now();
        server.publish(reply.topic.c_str(), reply.payload.c_str(), 2, false);
        const bool subscribed = until([&] {
            // the count first: the room list is a copy
            return rose.engine()->pendingCount() == 0 && rose.engine()->subscribedRoomJids().size() == rooms;
        });
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        if (!subscribed) {
            state.SkipWithError("the rooms were not subscribed");
            return;
        }
        state.SetIterationTime(seconds);
        times.push_back(seconds * 1000);
        rose.unRegisterToImServer(); // the next iteration logs in again
    }
    state.counters["rooms"] = rooms;
    state.counters["first_login_ms"] = times.front();
    state.counters["again_max_ms"] = *std::max_element(times.begin() + 1, times.end());
}
BENCHMARK(roomList)->Iterations(4)->UseManualTime()->Unit(benchmark::kMillisecond);

void chatBody(benchmark::State &state)
{
    const int bytes = int(state.range(0));
    const int count = smoke() ? 5 : bytes >= (1 << 20) ? 40 : bytes >= (1 << 16) ? 400 : 4000;
    const int window = bytes >= (1 << 20) ? 4 : 64; // messages in flight at once
    Side aliceSide, bobSide;
    Message_lib alice(&aliceSide, nullptr, "dev-a", "A"), bob(&bobSide, nullptr, "dev-b", "B");
    if (!login(alice, aliceSide, "alice") || !login(bob, bobSide, "bob")) {
        state.SkipWithError("no login");
        return;
    }
    const QString body(bytes, QLatin1Char('x'));
    const long before = ProcessUsage::resident();
    std::atomic<long> peak{ before };
    std::atomic<bool> sampling{ true };
    std::thread sampler([&] {
        while (sampling) {
            peak = std::max(peak.load(), ProcessUsage::resident());
            std::this_thread::sleep_for(5ms);
        }
    });
    double seconds = 0;
    for (auto _ : state) {
        bobSide.messages = 0;
        const auto start = Clock::now();
        if (!sendWindowed(
                alice, bobSide.messages, count, window, [&](int i) { return QString::number(i) + body.mid(8); })) {
            state.SkipWithError("messages missing");
            break;
        }
        seconds += std::chrono::duration<double>(Clock::now() - start).count();
    }
    sampling = false;
    sampler.join();
    state.SetItemsProcessed(state.iterations() * count);
    state.SetBytesProcessed(state.iterations() * count * int64_t(bytes));
    state.counters["peak_rss_over_KiB"] = double(peak - before);
    state.counters["us_per_msg"] = seconds * 1e6 / double(state.iterations() * count);
}
BENCHMARK(chatBody)->Arg(300)->Arg(64 << 10)->Arg(1 << 20)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
