// The engine's chat path.
//
// Engine_receive_path: one enciphered chat message, recorded once, handed to
// MessagePrivate::messgeRecievedMore as the push client would hand it (no
// broker), through topic parse, decipher, envelope parse, dispatch and the
// security rule to the application's onMessageReceive. Engine_send_path is
// the other direction without a connection: sendTextMessageTo builds the
// topic and the enciphered envelope, and stops where it would publish.
//
// Facade_chat_throughput: alice's Message_lib sends N chat messages with
// 300-byte bodies to bob's Message_lib through a local mosquitto; timed from
// the first send until bob's onMessageReceive has seen all N. Beside it,
// BareLibmosquitto_QoS2_throughput sends the same number of payloads of the
// same length as the façade's (the enciphered envelope, not the 300-byte
// body) between two bare libmosquitto clients at QoS 2, paced the same way.
// Both pairs stay connected and the rounds alternate (façade, bare, façade,
// ...), so that a busy machine weighs on both alike; the two medians are
// printed with their ratio. Each round also reports the CPU time per message
// of the two clients (this process) and of the broker (its child), which
// shows where a difference comes from when the machine, not the network,
// is the limit; and the clients' user-mode share of it, which leaves out the
// system calls (their number per message varies with how deliveries batch)
// and so tracks the clients' own work most steadily.
//
// Pacing: the push client keeps at most 1000 unacknowledged QoS 1/2
// publications and refuses more (the façade cannot raise the bound, and
// sendTextMessageTo then returns 0). A 20 000-message burst would mostly be
// refused, so the sender keeps a window: at most kWindow messages sent and
// not yet seen by the receiver; when the window is full it waits until the
// receiver has caught up by kRefill. What the receiver has seen is a lower
// bound of what the broker has acknowledged to the sender, except for
// acknowledgements still on their way back, hence the margin below 1000.
// Should the push client still refuse a message, the sender waits for one
// more arrival and tries again; refusals are counted and reported. The bare
// run uses the same window, so both sides have the same amount of work in
// flight and the ratio compares the clients, not the pacing.
//
// PUSHCHAT_BENCH_SMOKE=1 sends 500 messages instead of 20 000.

#include "message_lib.h"
#include "messageprivate.h"
#include "mosquittobroker.h"
#include "mqttbench.h"
#include "mqttmessage.h"

#include <benchmark/benchmark.h>
#include <mosquitto.h>

#include <QDir>
#include <QFile>
#include <QString>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

using benchmqtt::Arrivals;
using benchmqtt::BareClient;
using benchmqtt::Clock;
using benchmqtt::median;
using benchmqtt::messageCount;

constexpr long kWindow = 900; // messages in flight at most
constexpr long kRefill = 100; // a full window waits until this many have arrived
constexpr int kSecLevel = 5;

const char *const kDomain = "bench.local";
const char *const kBobTopic = "m/i/bob@bench.local/n";  // where a chat message to bob is published
const char *const kBareTopic = "m/i/b0b@bench.local/n"; // same length, for the bare clients
const QString kAlice = QStringLiteral("alice@bench.local");
const QString kBob = QStringLiteral("bob@bench.local");
const QString kMessageKey = QStringLiteral("6f1c2a9e-0d4b-4c55-9a77-2a4f0c1e8b13");
const QString kProbeKey = QStringLiteral("probe");
const QString kStamp = QStringLiteral("2026-01-05 09:30:00");

// A chat body of about 130 bytes: with the envelope around it, ~300 bytes of JSON.
QString receiveBody()
{
    return QString::fromUtf8(
        "Hello Bob, the build is green again; the numbers from last night's run are "
        "in the shared folder. Let me know when you have looked at them. 周一见!");
}

// A 300-byte chat body, for the throughput runs. Ordinary text: the cipher
// compresses what it can, so a repetitive body would shrink the payload.
QString throughputBody()
{
    return QStringLiteral(
        "Morning Bob! Quick update before standup: the nightly build passed on all three "
        "targets, but the integration job timed out twice while pulling images from the "
        "mirror. I restarted it at 07:42 and it is green now. Could you review merge request "
        "1187 today? Carol needs it for Thursday's release. Thanks");
}

// The payload the engine publishes for a chat message from alice to bob.
MQTTMessage *chatMessage(const QString &body)
{
    auto *msg = new MQTTMessage(nullptr, true);
    msg->setSysProtocol(kBob.toUtf8().constData(), 2, MESSAGE_INFO, MESSAGE_NORMAL);
    msg->fromText(kAlice, kBob, body, MediaInfo::MESSAGE_TYPE_CHAT, kSecLevel, BODY_TYPE_DEFAULT, kMessageKey, kStamp);
    return msg;
}

// --- engine, no broker -------------------------------------------------------

class CountingReceiver : public ImEventReciever {
public:
    long messages = 0;
    long readable = 0;
    void onMessageReceive(QString from, QString to, QString body, int bodyType, int msgType, QString messageKey,
        QString stamp, bool isReadable) override
    {
        Q_UNUSED(from)
        Q_UNUSED(to)
        Q_UNUSED(bodyType)
        Q_UNUSED(msgType)
        Q_UNUSED(messageKey)
        Q_UNUSED(stamp)
        benchmark::DoNotOptimize(body.constData());
        ++messages;
        readable += isReadable ? 1 : 0;
    }
};

void engineReceivePath(benchmark::State &state)
{
    std::unique_ptr<MQTTMessage> recorded(chatMessage(receiveBody()));
    if (recorded->protocol.topic != kBobTopic) {
        state.SkipWithError("unexpected chat topic");
        return;
    }
    std::unique_ptr<MQTTMessage> plain(new MQTTMessage(nullptr, false));
    plain->setSysProtocol(kBob.toUtf8().constData(), 2, MESSAGE_INFO, MESSAGE_NORMAL);
    plain->fromText(
        kAlice, kBob, receiveBody(), MediaInfo::MESSAGE_TYPE_CHAT, kSecLevel, BODY_TYPE_DEFAULT, kMessageKey, kStamp);

    std::vector<char> topic(kBobTopic, kBobTopic + std::strlen(kBobTopic) + 1);
    std::vector<char> payload(recorded->payload.c_str(), recorded->payload.c_str() + recorded->payload.size() + 1);
    const int length = int(recorded->payload.size());

    CountingReceiver app;
    MessagePrivate engine(&app, nullptr, "bench-device", "bench");
    for (auto _ : state)
        engine.messgeRecievedMore(0, topic.data(), payload.data(), length, 2, false);

    if (app.messages != long(state.iterations()) || app.readable != app.messages)
        state.SkipWithError("a message did not reach onMessageReceive as readable");
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.counters["json_bytes"] = double(plain->payload.size() - 1);
    state.counters["payload_bytes"] = double(length);
}

void engineSendPath(benchmark::State &state)
{
    CountingReceiver app;
    MessagePrivate engine(&app, nullptr, "bench-device", "bench");
    const QString body = receiveBody();
    for (auto _ : state) {
        // Not logged in: everything up to the publication, which fails.
        benchmark::DoNotOptimize(
            engine.sendTextMessageTo(QString(), kBob, kSecLevel, body, BODY_TYPE_DEFAULT, false, kMessageKey, kStamp));
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

// --- through the broker -------------------------------------------------------

double processCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + 1e-9 * double(ts.tv_nsec);
}

// User-mode CPU time of this process: the clients' own work, without the
// system calls, whose number per message depends on how the deliveries
// happen to batch.
double processUserSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec) + 1e-6 * double(usage.ru_utime.tv_usec);
}

// CPU time of this process's children: the broker.
double childrenCpuSeconds()
{
    double ticks = 0;
    QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile children(tasks.filePath(task + QStringLiteral("/children")));
        if (!children.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &pid : children.readAll().split(' ')) {
            if (pid.trimmed().isEmpty())
                continue;
            QFile stat(QStringLiteral("/proc/%1/stat").arg(QString::fromLatin1(pid.trimmed())));
            if (!stat.open(QIODevice::ReadOnly))
                continue;
            const QByteArray line = stat.readAll();
            // After "(comm) ": state is field 3, utime 14 and stime 15.
            const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
            if (fields.size() > 12)
                ticks += fields[11].toDouble() + fields[12].toDouble();
        }
    }
    return ticks / double(sysconf(_SC_CLK_TCK));
}

// Sends n messages through `send` (true when accepted), never more than
// kWindow ahead of what has arrived. False if the receiver stalls.
bool pacedSend(long n, Arrivals &arrivals, const std::function<bool()> &send, long &refusals)
{
    long sent = 0;
    long credit = kWindow;
    while (sent < n) {
        if (credit == 0) {
            if (!arrivals.waitUntil(sent - kWindow + kRefill, std::chrono::seconds(30)))
                return false;
            credit = arrivals.count() + kWindow - sent;
        }
        if (send()) {
            ++sent;
            --credit;
        } else {
            ++refusals;
            if (!arrivals.waitUntil(arrivals.count() + 1, std::chrono::seconds(30)))
                return false;
        }
    }
    return true;
}

// An application: counts chat messages (the probe apart) and connections.
class ChatApp : public ImEventReciever {
public:
    explicit ChatApp(Arrivals &arrivals) : m_arrivals(arrivals) { }
    std::atomic<long> probes{ 0 };

    void onConnected() override { m_connected.set(true); }
    void onMessageReceive(QString from, QString to, QString body, int bodyType, int msgType, QString messageKey,
        QString stamp, bool readable) override
    {
        Q_UNUSED(from)
        Q_UNUSED(to)
        Q_UNUSED(body)
        Q_UNUSED(bodyType)
        Q_UNUSED(msgType)
        Q_UNUSED(stamp)
        Q_UNUSED(readable)
        if (messageKey == kProbeKey)
            ++probes;
        else
            m_arrivals.arrived();
    }
    bool waitConnected() { return m_connected.waitSet(); }

private:
    Arrivals &m_arrivals;
    benchmqtt::Flag m_connected;
};

// alice and bob logged in through the broker, bob's subscriptions in force.
struct FacadePair {
    Arrivals arrivals, unused;
    ChatApp aliceApp{ unused }, bobApp{ arrivals };
    Message_lib alice{ &aliceApp, nullptr, "bench-alice-device", "bench" };
    Message_lib bob{ &bobApp, nullptr, "bench-bob-device", "bench" };
    const QString body = throughputBody();
    long refusals = 0;

    bool connect(const MosquittoBroker &broker)
    {
        alice.registerToImServer(QStringLiteral("127.0.0.1"), broker.port(), QStringLiteral("alice"), QString(),
            kSecLevel, QString::fromLatin1(kDomain), QString());
        bob.registerToImServer(QStringLiteral("127.0.0.1"), broker.port(), QStringLiteral("bob"), QString(), kSecLevel,
            QString::fromLatin1(kDomain), QString());
        if (!aliceApp.waitConnected() || !bobApp.waitConnected())
            return false;
        // onConnected follows the subscription requests, not their
        // acknowledgement: a message that reaches bob proves them.
        for (int attempt = 0; attempt < 50; ++attempt) {
            alice.sendTextMessageTo(QString(), QStringLiteral("bob"), kSecLevel, QStringLiteral("probe"),
                BODY_TYPE_DEFAULT, false, kProbeKey, kStamp);
            for (int i = 0; i < 10; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                if (bobApp.probes > 0)
                    return true;
            }
        }
        return false;
    }
    bool send()
    {
        return alice.sendTextMessageTo(QString(), QStringLiteral("bob"), kSecLevel, body, BODY_TYPE_DEFAULT, false,
                   kMessageKey, kStamp) == 1;
    }
};

// Two bare libmosquitto clients, the receiver subscribed.
struct BarePair {
    Arrivals arrivals;
    BareClient sender{ "bare-engine-sender", true, arrivals };
    BareClient receiver{ "bare-engine-receiver", true, arrivals };
    std::string payload;
    long refusals = 0;

    bool connect(const MosquittoBroker &broker, std::size_t payloadBytes)
    {
        payload.assign(payloadBytes, 'p');
        return sender.connect(broker) && receiver.connect(broker) && receiver.subscribe(kBareTopic);
    }
    bool send() { return sender.publish(kBareTopic, payload) == MOSQ_ERR_SUCCESS; }
};

// Both pairs stay connected for all rounds; the rounds alternate between
// them so that both see the same machine load.
struct Bench {
    const MosquittoBroker &broker;
    std::size_t payloadBytes = 0;
    std::unique_ptr<FacadePair> facade;
    std::unique_ptr<BarePair> bare;
    bool failed = false;
    std::vector<double> facadeRates, bareRates;
    std::vector<double> facadeCpu, bareCpu;   // µs of CPU per message, clients and broker
    std::vector<double> facadeUser, bareUser; // µs of user-mode CPU per message, clients

    explicit Bench(const MosquittoBroker &b) : broker(b)
    {
        std::unique_ptr<MQTTMessage> sample(chatMessage(throughputBody()));
        payloadBytes = sample->payload.size(); // what the façade publishes per message
    }
    bool ready()
    {
        if (!facade && !failed) {
            facade = std::make_unique<FacadePair>();
            bare = std::make_unique<BarePair>();
            failed = throughputBody().toUtf8().size() != 300 || !facade->connect(broker) ||
                     !bare->connect(broker, payloadBytes);
            std::this_thread::sleep_for(std::chrono::milliseconds(200)); // let stray probes land
        }
        return !failed;
    }
};

template <typename Pair>
void runRound(benchmark::State &state, Bench &bench, Pair &pair, std::vector<double> &rates, std::vector<double> &cpu,
    std::vector<double> &user)
{
    const long n = messageCount();
    double cpuSeconds = 0, brokerSeconds = 0, userSeconds = 0;
    for (auto _ : state) {
        pair.arrivals.reset(n);
        const double cpuStart = processCpuSeconds(), brokerStart = childrenCpuSeconds(),
                     userStart = processUserSeconds();
        const auto start = Clock::now();
        if (!pacedSend(
                n, pair.arrivals, [&] { return pair.send(); }, pair.refusals) ||
            !pair.arrivals.wait(std::chrono::seconds(120))) {
            state.SkipWithError("messages missing");
            bench.failed = true;
            return;
        }
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        cpuSeconds += processCpuSeconds() - cpuStart;
        brokerSeconds += childrenCpuSeconds() - brokerStart;
        userSeconds += processUserSeconds() - userStart;
        state.SetIterationTime(elapsed);
        rates.push_back(double(n) / elapsed);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * n);
    // CPU of both clients (all threads of this process, the broker apart).
    const double messages = double(int64_t(state.iterations()) * n);
    state.counters["client_cpu_us_per_msg"] = 1e6 * cpuSeconds / messages;
    state.counters["broker_cpu_us_per_msg"] = 1e6 * brokerSeconds / messages; // 10 ms ticks
    state.counters["client_user_us_per_msg"] = 1e6 * userSeconds / messages;
    cpu.push_back(1e6 * (cpuSeconds + brokerSeconds) / messages);
    user.push_back(1e6 * userSeconds / messages);
    state.counters["payload_bytes"] = double(bench.payloadBytes);
    state.counters["refused"] = double(pair.refusals);
}

void facadeRound(benchmark::State &state, Bench &bench)
{
    if (!bench.ready()) {
        state.SkipWithError("facades or bare clients did not connect");
        return;
    }
    runRound(state, bench, *bench.facade, bench.facadeRates, bench.facadeCpu, bench.facadeUser);
}

void bareRound(benchmark::State &state, Bench &bench)
{
    if (!bench.ready()) {
        state.SkipWithError("facades or bare clients did not connect");
        return;
    }
    runRound(state, bench, *bench.bare, bench.bareRates, bench.bareCpu, bench.bareUser);
}

} // namespace

int main(int argc, char **argv)
{
    mosquitto_lib_init();
    MosquittoBroker broker;
    if (!broker.start()) {
        std::fprintf(stderr, "could not start mosquitto:\n%s\n", broker.log().c_str());
        return 1;
    }
    const bool smoke = messageCount() < 20000;
    const int rounds = smoke ? 1 : 7;
    {
        Bench bench(broker);
        benchmark::RegisterBenchmark("Engine_receive_path", engineReceivePath);
        benchmark::RegisterBenchmark("Engine_send_path", engineSendPath);
        for (int round = 1; round <= rounds; ++round) {
            const std::string suffix = "/round:" + std::to_string(round);
            benchmark::RegisterBenchmark(("Facade_chat_throughput" + suffix).c_str(), facadeRound, std::ref(bench))
                ->Iterations(1)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark(
                ("BareLibmosquitto_QoS2_throughput" + suffix).c_str(), bareRound, std::ref(bench))
                ->Iterations(1)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }

        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();

        const double facade = median(bench.facadeRates), bare = median(bench.bareRates);
        if (facade > 0 && bare > 0) {
            std::vector<double> ratios;
            for (std::size_t i = 0; i < std::min(bench.facadeRates.size(), bench.bareRates.size()); ++i)
                ratios.push_back(bench.facadeRates[i] / bench.bareRates[i]);
            std::printf(
                "\n%ld chat messages, 300-byte bodies, %zu-byte payloads, at most %ld in flight, "
                "median of %zu alternating rounds: facades %.0f msg/s, bare libmosquitto QoS 2 %.0f "
                "msg/s, ratio %.1f %% (median of per-round ratios %.1f %%; push client refusals: %ld)\n",
                messageCount(), bench.payloadBytes, kWindow, ratios.size(), facade, bare, 100.0 * facade / bare,
                100.0 * median(ratios), bench.facade ? bench.facade->refusals : 0L);
            std::printf("CPU per message, clients and broker: facades %.1f us, bare %.1f us (medians)\n",
                median(bench.facadeCpu), median(bench.bareCpu));
            std::printf("User-mode CPU per message, clients only: facades %.1f us, bare %.1f us (medians)\n",
                median(bench.facadeUser), median(bench.bareUser));
        }
    } // the façades log out before the broker stops
    mosquitto_lib_cleanup();
    return 0;
}
