// A burst of room events: 10 000 group-information events (creations,
// releases, invitations, kicks, renames, creator and type changes, room-list
// replies) handed to the engine, either straight into its receiving entry
// point or published by a peer through a local mosquitto. Each iteration
// ends when the engine is destroyed, which delivers every event taken in.
// Reported: events delivered to the application (must equal the events
// sent), the most room notification threads at once, and the most threads
// the process had (sampled every 250 events) against the count before.
// PUSHCHAT_BENCH_SMOKE=1 sends 500 events instead of 10 000.

#include "groupevent.h"
#include "message_lib.h"
#include "messageprivate.h"
#include "mosquittobroker.h"
#include "pushclient.h"

#include <benchmark/benchmark.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char *kUserJid = "alice@d";
constexpr const char *kServerJid = "server@d";
constexpr long kSampleEvery = 250;

long eventCount()
{
    const char *smoke = std::getenv("PUSHCHAT_BENCH_SMOKE");
    return smoke && std::strcmp(smoke, "1") == 0 ? 500 : 10000;
}

int processThreads()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Threads:", 0) == 0)
            return std::stoi(line.substr(8));
    return 0;
}

// Counts room callbacks and samples the process's threads as they come.
class CountingApp : public ImEventReciever, public ImMUCEventReciever {
public:
    void onRoomChanged(Room &, GroupSubCmd) override { delivered(); }
    void onRoomListRefreshed(QString) override { delivered(); }

    void sampleThreads()
    {
        const int now = processThreads();
        int seen = peakThreads.load();
        while (now > seen && !peakThreads.compare_exchange_weak(seen, now)) { }
    }
    // Polls: the callbacks stay as cheap as an application's would be.
    bool waitFor(long target)
    {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (m_count < target && std::chrono::steady_clock::now() < limit)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        return m_count >= target;
    }
    long count() const { return m_count; }

    std::atomic<int> peakThreads{ 0 };

private:
    void delivered()
    {
        if (++m_count % kSampleEvery == 0)
            sampleThreads();
    }

    std::atomic<long> m_count{ 0 };
};

std::string roomBody(int i)
{
    const QString jid = QStringLiteral("room-%1@d").arg(i);
    const QJsonObject member{ { "bob@d", QJsonObject{ { "jid", "bob@d" }, { "join_time", "" }, { "name", "bob" } } } };
    const QJsonObject kick{ { "memberID", "bob" }, { "operatorBy", "carol" } };
    const QJsonObject room{ { "creater", "carol@d" }, { "jid", jid }, { "join_time", "2024-01-31 09:05:07" },
        { "members", QJsonArray{ member } }, { "name", "Team" },
        { "operatorBy", QString::fromUtf8(QJsonDocument(kick).toJson(QJsonDocument::Compact)) }, { "status", 1 },
        { "type", 2 } };
    return QJsonDocument(room).toJson(QJsonDocument::Compact).toStdString();
}

// The burst: every kind of event that reaches the application, in turn.
std::vector<GroupEvent> burst(long count)
{
    static const GroupSubCmd kinds[] = { GroupSub_Create, GroupSub_Release, GroupSub_Invite, GroupSub_Kick,
        GroupSub_SetGroupName, GroupSub_SetRoomCreater, GroupSub_Modify_Type, GroupSub_Refresh };
    std::vector<GroupEvent> events;
    events.reserve(std::size_t(count));
    for (long i = 0; i < count; ++i) {
        const GroupSubCmd kind = kinds[i % 8];
        const QString body = kind == GroupSub_Refresh
                                 ? QStringLiteral("{\"jid\":\"alice@d\",\"name\":\"\",\"rooms\":[]}")
                                 : QString::fromStdString(roomBody(int(i)));
        events.push_back(makeGroupEvent(kUserJid, kind, body, kServerJid));
    }
    return events;
}

void report(benchmark::State &state, long sent, long delivered, std::size_t notifyPeak, int before, int peak)
{
    if (delivered != sent)
        state.SkipWithError("events lost");
    state.counters["events"] = double(sent);
    state.counters["delivered"] = double(delivered);
    state.counters["notify_threads_peak"] = double(notifyPeak);
    state.counters["threads_before"] = double(before);
    state.counters["threads_peak"] = double(peak);
    state.counters["events_per_s"] = benchmark::Counter(double(sent), benchmark::Counter::kIsRate);
}

// Straight into the receiving entry point, as the delivery thread calls it.
void BM_RoomEventBurstDirect(benchmark::State &state)
{
    const long count = eventCount();
    std::vector<GroupEvent> events = burst(count);
    for (auto _ : state) {
        CountingApp app;
        auto lib = std::make_unique<Message_lib>(&app, &app, "bench-device", "bench");
        const int before = processThreads();
        app.peakThreads = before;
        for (long i = 0; i < count; ++i) {
            GroupEvent &e = events[std::size_t(i)];
            lib->engine()->messgeRecievedMore(0, e.topic.data(), e.payload.data(), int(e.payload.size()), 2, false);
            if (i % kSampleEvery == 0)
                app.sampleThreads();
        }
        const std::size_t notifyPeak = lib->engine()->roomNotificationPeakThreads();
        lib.reset(); // delivers what is still queued, joins the threads
        report(state, count, app.count(), notifyPeak, before, app.peakThreads);
    }
}
BENCHMARK(BM_RoomEventBurstDirect)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();

// The server's side of the broker run: counts the requests that reach it.
class ServerSide : public PushEventReciever {
public:
    PushClient *client = nullptr;

    void connectStatus(bool connected) override
    {
        if (!connected)
            return;
        std::string commands = std::string("s/g/c/") + kServerJid + "/#";
        client->subscribe(commands.data());
        client->publish("s/g/c/server@d/ready", "", 2, false); // back to us once subscribed
    }
    void messgeRecievedMore(int, char *, void *, int, int, bool) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_requests;
        m_changed.notify_all();
    }
    // Waits until `count` requests (the marker included) have arrived.
    bool waitFor(long count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(10), [&] { return m_requests >= count; });
    }
    long requests()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    long m_requests = 0;
};

// Published by a peer playing the server, through a local mosquitto.
void BM_RoomEventBurstBroker(benchmark::State &state)
{
    const long count = eventCount();
    const std::vector<GroupEvent> events = burst(count);
    MosquittoBroker broker;
    if (!broker.start()) {
        state.SkipWithError("no broker");
        return;
    }
    PushClientOptions roomy;
    roomy.maxPendingMessages = std::size_t(count) + 100; // the whole burst in flight at once
    roomy.maxPendingBytes = 256u * 1024u * 1024u;
    char serverId[] = "server@d@bench";
    ServerSide side;
    PushClient server(serverId, roomy);
    side.client = &server;
    server.setEventRecv(&side);
    server.start_connect(broker.host(), broker.port(), 60);
    if (!side.waitFor(1)) {
        state.SkipWithError("server side not subscribed");
        return;
    }

    for (auto _ : state) {
        CountingApp app;
        auto lib = std::make_unique<Message_lib>(&app, &app, "bench-device", "bench");
        // The room-list request arrives after the user's topics are subscribed.
        const long before_requests = side.requests();
        lib->registerToImServer(broker.host(), broker.port(), "alice", "", 5, "d", "");
        if (!side.waitFor(before_requests + 1)) {
            state.SkipWithError("engine not online");
            return;
        }
        const int before = processThreads();
        app.peakThreads = before;

        const auto begin = std::chrono::steady_clock::now();
        for (long i = 0; i < count; ++i) {
            const GroupEvent &e = events[std::size_t(i)];
            server.publish(e.topic.c_str(), e.payload.c_str(), 2, false);
            if (i % kSampleEvery == 0)
                app.sampleThreads();
        }
        app.waitFor(count);
        const std::size_t notifyPeak = lib->engine()->roomNotificationPeakThreads();
        lib.reset();
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        state.SetIterationTime(seconds);
        report(state, count, app.count(), notifyPeak, before, app.peakThreads);
    }
}
BENCHMARK(BM_RoomEventBurstBroker)->Iterations(3)->Unit(benchmark::kMillisecond)->UseManualTime();

} // namespace

BENCHMARK_MAIN();
