// The clustered broker beside a single mosquitto, end to end, in one run:
//  - chat throughput alice -> bob at delivery level 1 (the cluster's most):
//    through one mosquitto, and through the cluster with alice on node 1
//    and bob on node 2;
//  - each node's resident memory, idle (before the run) and under load (the
//    peak during the cluster's chat run);
//  - logging in with 10 000 rooms on the cluster: from the room-list reply
//    to every room topic in force;
//  - the time from a node's death (SIGKILL of bob's node while alice sends
//    a message every 5 ms) to bob's next delivered message, and whether
//    anything was lost or came twice.
// The cluster is the one in $PUSHCHAT_CLUSTER_DIR, or one this program
// starts with scripts/cluster and stops at its end. PUSHCHAT_BENCH_SMOKE=1
// shortens each run.

#include "facadeside.h"
#include "groupevent.h"
#include "message_lib.h"
#include "messageprivate.h"
#include "mqttbench.h"
#include "processusage.h"
#include "pushclient.h"
#include "rabbitcluster.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using benchmqtt::Clock;
using benchmqtt::smoke;
using benchmqtt::until;
using namespace std::chrono_literals;

// The cluster of $PUSHCHAT_CLUSTER_DIR, or one started here and stopped
// when the program ends.
class Cluster {
public:
    Cluster()
    {
        if (!std::getenv("PUSHCHAT_CLUSTER_DIR")) {
            char pattern[] = "/tmp/pushchat-bench-cluster.XXXXXX";
            m_own = mkdtemp(pattern) ? pattern : "";
            std::fprintf(stderr, "starting a three-node cluster in %s (about 40 s)\n", m_own.c_str());
            const std::string start = "'" PUSHCHAT_CLUSTER_SCRIPT "' start '" + m_own + "/c' >/dev/null";
            if (!m_own.empty() && std::system(start.c_str()) == 0)
                nodes = RabbitCluster((m_own + "/c").c_str());
        }
    }
    ~Cluster()
    {
        if (!m_own.empty())
            std::system(
                ("'" PUSHCHAT_CLUSTER_SCRIPT "' stop '" + m_own + "/c' 2>/dev/null; rm -rf '" + m_own + "'").c_str());
    }
    RabbitCluster nodes;

private:
    std::string m_own;
};

Cluster &cluster()
{
    static Cluster shared;
    return shared;
}

MosquittoBroker &mosquitto()
{
    static MosquittoBroker shared{ MosquittoBroker::Options{ true, false, "max_inflight_messages 0" } };
    static const bool up = shared.start();
    if (!up)
        std::fprintf(stderr, "the broker did not start:\n%s\n", shared.log().c_str());
    return shared;
}

// Numbered messages ("n <i>") that arrived, once each, and when the last did.
class Numbered : public ImEventReciever {
public:
    explicit Numbered(int size = 0) : m_seen(std::size_t(size)) { }
    std::atomic<int> connects{ 0 }, messages{ 0 }, twice{ 0 };
    std::atomic<Clock::rep> last{ 0 };
    void onConnected() override { ++connects; }
    void onMessageReceive(QString, QString, QString body, int, int, QString, QString, bool) override
    {
        last = Clock::now().time_since_epoch().count();
        const int i = body.mid(2).toInt();
        std::lock_guard<std::mutex> lock(m_mutex);
        if (i >= 0 && std::size_t(i) < m_seen.size() && m_seen[std::size_t(i)]++ > 0)
            ++twice;
        else
            ++messages;
    }

private:
    std::mutex m_mutex;
    std::vector<int> m_seen;
};

// Logs `lib` in as `user`: on mosquitto (node 0) or on a node of the
// cluster, with that node's user and the others to fail over to.
bool login(Message_lib &lib, Numbered &side, const char *user, int node)
{
    PushClientOptions options;
    options.reconnectDelayMin = 20ms;
    options.reconnectDelayMax = 200ms;
    const RabbitCluster &nodes = cluster().nodes;
    if (node > 0) {
        options.username = options.password = user;
        for (int i = 1; i < RabbitCluster::kNodes; ++i)
            options.failover.push_back({ nodes.host(), nodes.port((node - 1 + i) % RabbitCluster::kNodes + 1) });
    }
    lib.setPushClientOptions(options);
    lib.setMaxQos(1);
    const int before = side.connects;
    lib.registerToImServer(
        "127.0.0.1", node > 0 ? nodes.port(node) : mosquitto().port(), user, QString(), 5, "bench.test", QString());
    return until([&] { return side.connects > before && lib.engine()->pendingCount() == 0; });
}

long nodeResidentKiB(int node)
{
    const std::string pid = fileText(cluster().nodes.dir() + "/node" + std::to_string(node) + "/pid");
    return pid.empty() ? 0 : ProcessUsage::resident(pid.substr(0, pid.find_first_of(" \n")));
}

// Alice sends `count` messages to bob, at most `window` in flight.
void chat(benchmark::State &state)
{
    const bool onCluster = state.range(0) != 0;
    if (onCluster && !cluster().nodes.known()) {
        state.SkipWithError("no cluster");
        return;
    }
    const int count = int(benchmqtt::messageCount()), window = 64;
    long idle[RabbitCluster::kNodes] = {}, peak[RabbitCluster::kNodes] = {};
    for (int n = 1; onCluster && n <= RabbitCluster::kNodes; ++n)
        idle[n - 1] = peak[n - 1] = nodeResidentKiB(n);
    Numbered aliceSide, bobSide(count);
    Message_lib alice(&aliceSide, nullptr, "dev-a", "A"), bob(&bobSide, nullptr, "dev-b", "B");
    if (!login(alice, aliceSide, "alice", onCluster ? 1 : 0) || !login(bob, bobSide, "bob", onCluster ? 2 : 0)) {
        state.SkipWithError("no login");
        return;
    }
    std::atomic<bool> sampling{ onCluster };
    std::thread sampler([&] {
        for (; sampling; std::this_thread::sleep_for(50ms))
            for (int n = 1; n <= RabbitCluster::kNodes; ++n)
                peak[n - 1] = std::max(peak[n - 1], nodeResidentKiB(n));
    });
    double seconds = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (!sendWindowed(alice, bobSide.messages, count, window, [&](int i) { return QString("n %1").arg(i); })) {
            state.SkipWithError("messages missing");
            break;
        }
        seconds += std::chrono::duration<double>(Clock::now() - start).count();
    }
    sampling = false;
    sampler.join();
    state.counters["msgs_per_s"] = count / seconds;
    state.counters["twice"] = bobSide.twice.load();
    for (int n = 1; onCluster && n <= RabbitCluster::kNodes; ++n) {
        state.counters["node" + std::to_string(n) + "_idle_MB"] = double(idle[n - 1]) / 1024;
        state.counters["node" + std::to_string(n) + "_load_MB"] = double(peak[n - 1]) / 1024;
    }
}
BENCHMARK(chat)->ArgName("cluster")->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// rose on node 3 logs in; the server's reply names every room.
void roomList(benchmark::State &state)
{
    if (!cluster().nodes.known()) {
        state.SkipWithError("no cluster");
        return;
    }
    const int rooms = smoke() ? 500 : 10000;
    QString json = QStringLiteral(R"({"jid":"rose@bench.test","rooms":[)");
    for (int i = 0; i < rooms; ++i)
        json += QStringLiteral(R"(%1{"room%2@rooms.bench.test":{}})").arg(i ? "," : "").arg(i);
    json += QStringLiteral("]}");
    PushClientOptions serverOptions;
    serverOptions.username = serverOptions.password = "server";
    std::string id = "server@bench.test@bench";
    PushClient server(id.data(), serverOptions);
    server.setMaxQos(1);
    server.start_connect(cluster().nodes.host(), cluster().nodes.port(1), 60);
    until([&] { return server.state() == PushClient::State::Online; });
    Numbered side;
    Message_lib rose(&side, nullptr, "dev-rose", "Rose");
    double seconds = 0;
    for (auto _ : state) {
        if (!login(rose, side, "rose", 3)) {
            state.SkipWithError("rose did not log in");
            return;
        }
        const GroupEvent reply = makeGroupEvent("rose@bench.test", GroupSub_Refresh, json, "server@bench.test");
        const auto start = Clock::now();
        server.publish(reply.topic.c_str(), reply.payload.c_str(), 1, false);
        const bool subscribed = until(
            [&] { return rose.engine()->pendingCount() == 0 && rose.engine()->subscribedRoomJids().size() == rooms; },
            600s); // each room is a binding of the session's replicated queue: minutes for 10 000
        seconds = std::chrono::duration<double>(Clock::now() - start).count();
        if (!subscribed) {
            state.SkipWithError("the rooms were not subscribed");
            return;
        }
        state.SetIterationTime(seconds);
    }
    state.counters["rooms"] = rooms;
    state.counters["rooms_per_s"] = rooms / seconds;
}
BENCHMARK(roomList)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// Last: the cluster keeps two nodes after it.
void nodeDeath(benchmark::State &state)
{
    if (!cluster().nodes.known()) {
        state.SkipWithError("no cluster");
        return;
    }
    const int count = smoke() ? 400 : 2000; // 2 s or 10 s of messages
    Numbered aliceSide, bobSide(count);
    Message_lib alice(&aliceSide, nullptr, "dev-a", "A"), bob(&bobSide, nullptr, "dev-b", "B");
    if (!login(alice, aliceSide, "alice", 1) || !login(bob, bobSide, "bob", 2)) {
        state.SkipWithError("no login");
        return;
    }
    double gap = 0;
    for (auto _ : state) {
        std::thread sender([&] {
            for (int i = 0; i < count; ++i, std::this_thread::sleep_for(5ms))
                while (alice.sendTextMessageTo(
                           "", "bob", 5, QString("n %1").arg(i), BODY_TYPE_DEFAULT, false, "k", "st") == 0)
                    std::this_thread::sleep_for(1ms);
        });
        until([&] { return bobSide.messages >= count / 4; });
        const auto killed = Clock::now();
        cluster().nodes.kill(2);
        const bool next = until([&] { return bobSide.last > killed.time_since_epoch().count(); });
        gap = std::chrono::duration<double>(Clock::time_point(Clock::duration(bobSide.last.load())) - killed).count();
        sender.join();
        if (!next || !until([&] { return bobSide.messages >= count; })) {
            state.SkipWithError("messages missing after the node's death");
            break;
        }
    }
    state.counters["death_to_next_ms"] = gap * 1000;
    state.counters["delivered"] = bobSide.messages.load();
    state.counters["twice"] = bobSide.twice.load();
}
BENCHMARK(nodeDeath)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
