// End-to-end throughput through a local mosquitto: N messages of 300 bytes at
// QoS 2 from one client to another, with PushClient and with bare libmosquitto
// clients (mosquitto_loop_start, same session and socket options), printed
// with their ratio. Also the QoS 2 round trip (publish, echo, reply), with and
// without TCP_NODELAY on the bare client, to show what Nagle's algorithm costs.
// The PushClient figures are taken twice: over plain TCP and over TLS (a
// second listener of the same broker, with certificates made for the run;
// the client verifies the chain and the host name, as deployed).
// PUSHCHAT_BENCH_SMOKE=1 sends 500 messages instead of 20 000.

#include "mosquittobroker.h"
#include "mqttbench.h"
#include "pushclient.h"

#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <mosquitto.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using benchmqtt::Arrivals;
using benchmqtt::BareClient;
using benchmqtt::Clock;
using benchmqtt::median;
using benchmqtt::messageCount;

// --- PushClient side ---------------------------------------------------------

class CountingReceiver : public PushEventReciever {
public:
    explicit CountingReceiver(Arrivals &arrivals) : m_arrivals(arrivals) { }
    std::function<void(char *topic, void *payload)> onMessage; // set before connecting
    void messgeRecievedMore(int, char *topic, void *payload, int, int, bool) override
    {
        if (onMessage)
            onMessage(topic, payload);
        m_arrivals.arrived();
    }
    void connectStatus(bool connected) override { m_online.set(connected); }
    bool waitOnline() { return m_online.waitSet(); }

private:
    Arrivals &m_arrivals;
    benchmqtt::Flag m_online;
};

struct PushPair {
    Arrivals arrivals;
    CountingReceiver senderSide{ arrivals }, receiverSide{ arrivals };
    std::unique_ptr<PushClient> sender, receiver;

    PushPair(const std::string &tag, const PushClientOptions &options)
    {
        std::string senderId = "bench-sender-" + tag, receiverId = "bench-receiver-" + tag;
        sender = std::make_unique<PushClient>(senderId.data(), options);
        receiver = std::make_unique<PushClient>(receiverId.data(), options);
        sender->setEventRecv(&senderSide);
        receiver->setEventRecv(&receiverSide);
    }

    bool connect(const char *host, int port, const std::string &topic)
    {
        sender->start_connect(host, port, 60);
        receiver->start_connect(host, port, 60);
        if (!senderSide.waitOnline() || !receiverSide.waitOnline())
            return false;
        std::string filter = topic;
        receiver->subscribe(filter.data());
        // One message through proves the subscription is in force.
        for (int attempt = 0; attempt < 50; ++attempt) {
            arrivals.reset(1);
            sender->publish(topic.c_str(), "probe", 2, false);
            if (arrivals.wait(std::chrono::milliseconds(100)))
                return true;
        }
        return false;
    }
};

// --- benchmarks --------------------------------------------------------------

// Messages per second of every timed run, for the closing comparison.
struct Results {
    std::vector<double> push;
    std::vector<double> pushTls;
    std::vector<double> bare;
};

// Where the PushClients connect: the plain listener, or the TLS one with
// the options that verify it.
struct Endpoint {
    const char *name;
    int port;
    PushClientOptions options;
};

const std::string kPayload(300, 'p');

void report(benchmark::State &state, long messages, const std::vector<double> &rates)
{
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * messages);
    state.counters["median_msgs_per_s"] = median(rates);
}

// kPayload with the message's number in front: the same size for every
// message, and no two alike.
std::string numbered(long i)
{
    std::string payload = kPayload;
    const std::string number = std::to_string(i) + ' ';
    payload.replace(0, number.size(), number);
    return payload;
}

void pushThroughput(benchmark::State &state, const Endpoint &endpoint, std::vector<double> &rates)
{
    const long n = messageCount();
    PushClientOptions options = endpoint.options;
    options.maxPendingMessages = static_cast<std::size_t>(n) + 10; // the whole burst at once, like bare
    PushPair pair(std::string("throughput-") + endpoint.name, options);
    if (!pair.connect("127.0.0.1", endpoint.port, "bench/push")) {
        state.SkipWithError("PushClient pair did not connect");
        return;
    }
    for (auto _ : state) {
        pair.arrivals.reset(n);
        const auto start = Clock::now();
        for (long i = 0; i < n; ++i) {
            // Distinct payloads: identical ones would be dropped as redeliveries.
            if (pair.sender->publish("bench/push", numbered(i).c_str(), 2, false) != 0) {
                state.SkipWithError("publish refused");
                return;
            }
        }
        if (!pair.arrivals.wait(std::chrono::seconds(120))) {
            state.SkipWithError("messages missing");
            return;
        }
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(elapsed);
        rates.push_back(static_cast<double>(n) / elapsed);
    }
    report(state, n, rates);
}

void bareThroughput(benchmark::State &state, const MosquittoBroker &broker, Results &results)
{
    const long n = messageCount();
    Arrivals arrivals;
    BareClient sender("bare-sender", true, arrivals), receiver("bare-receiver", true, arrivals);
    if (!sender.connect(broker) || !receiver.connect(broker) || !receiver.subscribe("bench/bare")) {
        state.SkipWithError("bare pair did not connect");
        return;
    }
    for (auto _ : state) {
        arrivals.reset(n);
        const auto start = Clock::now();
        for (long i = 0; i < n; ++i)
            sender.publish("bench/bare", numbered(i));
        if (!arrivals.wait(std::chrono::seconds(120))) {
            state.SkipWithError("messages missing");
            return;
        }
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(elapsed);
        results.bare.push_back(static_cast<double>(n) / elapsed);
    }
    report(state, n, results.bare);
}

// One QoS 2 round trip: publish, the peer echoes from its callback, the reply
// arrives. Both ends are PushClients.
void pushRoundTrip(benchmark::State &state, const Endpoint &endpoint)
{
    PushPair pair(std::string("roundtrip-") + endpoint.name, endpoint.options);
    PushClient *echo = pair.receiver.get();
    pair.receiverSide.onMessage = [echo](char *topic, void *payload) {
        if (std::strcmp(topic, "bench/ping") == 0)
            echo->publish("bench/pong", static_cast<const char *>(payload), 2, false);
    };
    if (!pair.connect("127.0.0.1", endpoint.port, "bench/ping")) {
        state.SkipWithError("PushClient pair did not connect");
        return;
    }
    char pong[] = "bench/pong";
    pair.sender->subscribe(pong);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    long round = 0;
    for (auto _ : state) {
        pair.arrivals.reset(2); // the echo's arrival and the reply's
        pair.sender->publish("bench/ping", ("ping " + std::to_string(++round)).c_str(), 2, false);
        if (!pair.arrivals.wait(std::chrono::seconds(10))) {
            state.SkipWithError("no reply");
            return;
        }
    }
}

void bareRoundTrip(benchmark::State &state, const MosquittoBroker &broker, bool noDelay)
{
    Arrivals arrivals;
    const std::string tag = noDelay ? "nodelay" : "nagle";
    BareClient pinger("ping-" + tag, noDelay, arrivals), echo("echo-" + tag, noDelay, arrivals);
    const std::string ping = "bench/ping-" + tag, pongTopic = "bench/pong-" + tag;
    echo.echoTo(pongTopic.c_str());
    if (!pinger.connect(broker) || !echo.connect(broker) || !echo.subscribe(ping.c_str()) ||
        !pinger.subscribe(pongTopic.c_str())) {
        state.SkipWithError("bare pair did not connect");
        return;
    }
    for (auto _ : state) {
        arrivals.reset(2);
        pinger.publish(ping.c_str(), "ping");
        if (!arrivals.wait(std::chrono::seconds(10))) {
            state.SkipWithError("no reply");
            return;
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    mosquitto_lib_init();
    QTemporaryDir tls;
    const std::string dir = tls.path().toStdString() + "/";
    const int tlsPort = MosquittoBroker::freePort();
    MosquittoBroker broker({ true, false,
        "listener " + std::to_string(tlsPort) + " 127.0.0.1\ncafile " + dir + "ca.crt\ncertfile " + dir +
            "server.crt\nkeyfile " + dir + "server.key\n" });
    if (!MosquittoBroker::makeTlsFiles(dir) || !broker.start()) {
        std::fprintf(stderr, "could not make TLS files or start mosquitto:\n%s\n", broker.log().c_str());
        return 1;
    }
    Endpoint tcp{ "tcp", broker.port(), PushClientOptions() }, secure{ "tls", tlsPort, PushClientOptions() };
    secure.options.tls.enabled = true;
    secure.options.tls.caFile = dir + "ca.crt";

    Results results;
    const bool smoke = messageCount() < 20000;
    const int iterations = smoke ? 1 : 5;
    benchmark::RegisterBenchmark("PushClient_QoS2_throughput", pushThroughput, std::cref(tcp), std::ref(results.push))
        ->Iterations(iterations)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(
        "PushClient_QoS2_throughput_TLS", pushThroughput, std::cref(secure), std::ref(results.pushTls))
        ->Iterations(iterations)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(
        "BareLibmosquitto_QoS2_throughput", bareThroughput, std::cref(broker), std::ref(results))
        ->Iterations(iterations)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    for (const Endpoint *endpoint : { &tcp, &secure }) {
        benchmark::RegisterBenchmark(endpoint == &tcp ? "PushClient_QoS2_round_trip" : "PushClient_QoS2_round_trip_TLS",
            pushRoundTrip, std::cref(*endpoint))
            ->Iterations(smoke ? 5 : 200)
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::RegisterBenchmark("BareLibmosquitto_QoS2_round_trip_nodelay", bareRoundTrip, std::cref(broker), true)
        ->Iterations(smoke ? 5 : 200)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BareLibmosquitto_QoS2_round_trip_nagle", bareRoundTrip, std::cref(broker), false)
        ->Iterations(smoke ? 2 : 20)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    const double push = median(results.push), bare = median(results.bare);
    if (push > 0 && bare > 0) {
        std::printf(
            "\n%ld messages of %zu bytes at QoS 2 (median of %zu runs): PushClient %.0f msg/s, "
            "bare libmosquitto %.0f msg/s, ratio %.1f %%\n",
            messageCount(), kPayload.size(), results.push.size(), push, bare, 100.0 * push / bare);
    }
    const double pushTls = median(results.pushTls);
    if (push > 0 && pushTls > 0)
        std::printf("PushClient over TLS %.0f msg/s, %.1f %% of plain TCP\n", pushTls, 100.0 * pushTls / push);
    return 0;
}
