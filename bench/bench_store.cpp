// The message store on a store the benchmark builds: 1 000 000 messages in
// 1 000 conversations (20 000 in a smoke run), bodies of Latin words and of
// Chinese text. Recording (batched by the store's thread, indexing
// included), a send's write (synced or not), opening and
// listing the conversations with unread counts, a page of 50, searches for
// a Latin word, a four- and a two-character Chinese word, the file's size
// per message; the two stores' CPU time per message of chat without the
// network; then chat between two façades through mosquitto with the
// store off and on (synced, not synced, the sender's or the receiver's
// alone), in alternating rounds of one run, each until the last message
// arrived and both stores committed everything. Message keys are
// random-looking UUIDs, as applications and the library make them.

#include "facadeside.h"
#include "messagestore.h"
#include "mosquittobroker.h"

#include <benchmark/benchmark.h>

#include <QTemporaryDir>
#include <QUuid>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <thread>

namespace {

constexpr int kConversations = 1000;

// Message i's key, shaped as applications make them (and the library, for
// a send without one): a random-looking UUID, so that each lands anywhere
// in the keys' index, yet found again from i.
QString keyOf(int i)
{
    std::uint64_t x = std::uint64_t(i) + 1, half[2];
    for (std::uint64_t &h : half) { // splitmix64
        x += 0x9e3779b97f4a7c15ULL;
        h = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
        h = (h ^ (h >> 27)) * 0x94d049bb133111ebULL;
        h ^= h >> 31;
    }
    QByteArray bytes(reinterpret_cast<const char *>(half), sizeof half);
    return QUuid::fromRfc4122(bytes).toString(QUuid::WithoutBraces);
}

int storeSize()
{
    return benchmqtt::smoke() ? 20000 : 1000000;
}

QTemporaryDir &folder()
{
    static QTemporaryDir dir;
    return dir;
}
QString storePath()
{
    return folder().filePath("bench.db");
}

// Bodies: 6 to 14 words of a 5 000-word vocabulary, or 6 to 20 characters
// from 600 common Han characters; one message in 1 000 holds "kangaroo"
// and one in 1 000 "北京天气".
QString body(std::mt19937 &random, int i)
{
    static const QString han = QString::fromUtf8(
        "的一是不了人我在有他这为之大来以个中上们到说国和地也子时道出而要于就下得可你年生自会那后能对着事其里所去行过家"
        "十用发天如然作方成者多日都三小军二无同么经法当起与好看学进种将还分此心前面又定见只主没公从知民东西南北春夏秋冬"
        "山水火土金木风云雨雪花草鸟鱼马牛羊猪狗猫车船路桥门窗房屋城市村镇街道商店银行学校医院工厂公司朋友老师学生父母兄"
        "弟");
    std::uniform_int_distribution<int> pick(0, 1 << 30);
    QString out;
    if (i % 1000 == 7)
        out += "kangaroo ";
    if (i % 1000 == 500)
        out += QString::fromUtf8("北京天气");
    if (i % 2) {
        for (int w = 0, n = 6 + pick(random) % 9; w < n; ++w)
            out += QString("w%1 ").arg(pick(random) % 5000, 0, 36);
    } else {
        for (int c = 0, n = 6 + pick(random) % 15; c < n; ++c)
            out += han.at(pick(random) % han.size());
    }
    return out;
}

StoredMessage message(std::mt19937 &random, int i)
{
    StoredMessage m;
    m.conversation = QString("peer%1@im.test").arg(i % kConversations);
    m.key = keyOf(i);
    m.sender = i % 3 ? m.conversation : QString("me@im.test");
    m.outgoing = i % 3 == 0;
    m.state = m.outgoing ? StoredState::Sent : (i % 7 ? StoredState::Read : StoredState::Received);
    m.time = 1700000000000 + i;
    m.body = body(random, i);
    return m;
}

void record(benchmark::State &state)
{
    for (auto _ : state) {
        QFile::remove(storePath());
        MessageStore store(false);
        store.open(storePath());
        std::mt19937 random(7);
        const auto start = benchmqtt::Clock::now();
        for (int i = 0; i < storeSize(); ++i)
            store.recordReceived(message(random, i));
        store.flush();
        store.search("indexed", {}, 1); // a search first indexes what is not yet
        const double seconds = std::chrono::duration<double>(benchmqtt::Clock::now() - start).count();
        state.SetIterationTime(seconds);
        state.counters["messages/s"] = storeSize() / seconds;
        state.counters["bytes/message"] = double(store.fileBytes()) / storeSize();
    }
}

// One send's write, as the sender waits for it: synced (the default) or not.
void send(benchmark::State &state)
{
    QTemporaryDir dir;
    MessageStore store(state.range(0) != 0);
    store.open(dir.filePath("send.db"));
    std::mt19937 random(5);
    int i = 0;
    for (auto _ : state) {
        StoredMessage m = message(random, 3 * ++i); // one this user sends
        benchmark::DoNotOptimize(store.recordSent(m));
    }
}

// The stores' share of chat, without the network: the sender's store
// records each send and marks it sent 64 sends later, the receiver's
// records it, at a pace of 8 000 messages a second (about the chat's), both
// told of every change as the engine is. The process's CPU time per
// message, both stores together: what the stores add to the chat's load.
void chatLoad(benchmark::State &state)
{
    constexpr int kCount = 20000, kRate = 8000, kInFlight = 64;
    for (auto _ : state) {
        QTemporaryDir dir;
        std::atomic<int> told{ 0 };
        MessageStore alice(false), bob(false);
        alice.onChanged = bob.onChanged = [&told](const StoredMessage &) { ++told; };
        alice.open(dir.filePath("alice.db"));
        bob.open(dir.filePath("bob.db"));
        std::vector<qint64> ids;
        const auto cpu = [] { return double(std::clock()) / CLOCKS_PER_SEC; };
        const double cpuStart = cpu();
        const auto start = benchmqtt::Clock::now();
        for (int i = 0; i < kCount; ++i) {
            StoredMessage m;
            m.conversation = "bob@im.test";
            m.key = keyOf(i);
            m.sender = "alice@im.test";
            m.time = 1700000000000 + i;
            m.body = QString("n %1").arg(i);
            ids.push_back(alice.recordSent(m));
            if (i >= kInFlight)
                alice.markSent(ids[std::size_t(i - kInFlight)]);
            m.conversation = m.sender;
            m.state = StoredState::Received;
            bob.recordReceived(m);
            if (i % kInFlight == kInFlight - 1)
                std::this_thread::sleep_until(start + std::chrono::microseconds(1000000LL * (i + 1) / kRate));
        }
        for (int i = kCount - kInFlight; i < kCount; ++i)
            alice.markSent(ids[std::size_t(i)]);
        alice.conversations();
        bob.conversations();
        const double seconds = cpu() - cpuStart;
        state.SetIterationTime(seconds);
        state.counters["CPU us/message"] = 1e6 * seconds / kCount;
        state.counters["told"] = told.load();
    }
}

// The store built by record, opened for the reads.
MessageStore &built()
{
    static MessageStore store(false);
    static const bool opened = store.open(storePath());
    (void)opened;
    return store;
}

void openAndList(benchmark::State &state)
{
    int conversations = 0;
    for (auto _ : state) {
        MessageStore store(false);
        store.open(storePath());
        conversations = store.conversations().size();
    }
    state.counters["conversations"] = conversations;
}

void page(benchmark::State &state)
{
    std::mt19937 random(3);
    for (auto _ : state) {
        const int i = int(random() % unsigned(storeSize() - 100 * kConversations)) + 100 * kConversations;
        benchmark::DoNotOptimize(built().messages(QString("peer%1@im.test").arg(i % kConversations), keyOf(i), 50));
    }
}

void search(benchmark::State &state, const char *text)
{
    int found = 0;
    for (auto _ : state)
        found = built().search(QString::fromUtf8(text), {}, 50).size();
    state.counters["found"] = found;
}

// --- chat through the broker, store off and on ----------------------------------

struct Pair {
    Side aliceSide, bobSide;
    Message_lib alice{ &aliceSide, nullptr, "a", "a" }, bob{ &bobSide, nullptr, "b", "b" };
    // 0 off; 1 both stores, synced commits; 2 both, not synced; 3 alice's
    // alone, 4 bob's alone, not synced.
    Pair(int port, const QString &stores, int store)
    {
        if (store && store != 4)
            alice.openMessageStore(stores + "/alice.db", store == 1);
        if (store && store != 3)
            bob.openMessageStore(stores + "/bob.db", store == 1);
        alice.registerToImServer("127.0.0.1", port, "alice", {}, 5, "im.test", {});
        bob.registerToImServer("127.0.0.1", port, "bob", {}, 5, "im.test", {});
        benchmqtt::until([&] { return aliceSide.connects > 0 && bobSide.connects > 0; });
    }
};

// PUSHCHAT_BENCH_CHAT_STORES, e.g. "02": only these arrangements (to
// profile one); all by default.
bool chosen(int store)
{
    const char *only = std::getenv("PUSHCHAT_BENCH_CHAT_STORES");
    return only == nullptr || std::strchr(only, '0' + store) != nullptr;
}

void chat(benchmark::State &state)
{
    MosquittoBroker broker;
    broker.start();
    const int count = int(benchmqtt::messageCount());
    const int rounds = benchmqtt::smoke() ? 1 : 7;
    std::vector<double> rates[5], ratioSynced, ratioUnsynced;
    for (auto _ : state) {
        for (int round = 0; round < rounds; ++round) {
            double rate[5];
            // Not synced right after off: the machine's state changes less
            // between the two runs whose ratio is the figure.
            for (const int store : { 0, 2, 1, 3, 4 }) {
                if (!chosen(store)) {
                    rate[store] = 0;
                    continue;
                }
                QTemporaryDir stores;
                Pair pair(broker.port(), stores.path(), store);
                const auto start = benchmqtt::Clock::now();
                if (!sendWindowed(
                        pair.alice, pair.bobSide.messages, count, 64, [](int i) { return QString("n %1").arg(i); },
                        keyOf))
                    state.SkipWithError("messages missing");
                // Done when both stores have committed what they were given
                // (a read waits for that); the search index may follow later.
                pair.alice.storedConversations();
                pair.bob.storedConversations();
                rate[store] = count / std::chrono::duration<double>(benchmqtt::Clock::now() - start).count();
                rates[store].push_back(rate[store]);
            }
            ratioSynced.push_back(rate[1] / rate[0]);
            ratioUnsynced.push_back(rate[2] / rate[0]);
        }
    }
    state.counters["off msg/s"] = benchmqtt::median(rates[0]);
    state.counters["on msg/s"] = benchmqtt::median(rates[1]);
    state.counters["on, unsynced msg/s"] = benchmqtt::median(rates[2]);
    state.counters["sender's alone msg/s"] = benchmqtt::median(rates[3]);
    state.counters["receiver's alone msg/s"] = benchmqtt::median(rates[4]);
    state.counters["on/off"] = benchmqtt::median(ratioSynced);
    state.counters["on, unsynced/off"] = benchmqtt::median(ratioUnsynced);
}

} // namespace

BENCHMARK(record)->Name("store/record")->Unit(benchmark::kSecond)->Iterations(1)->UseManualTime();
BENCHMARK(send)->Name("store/send")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(chatLoad)->Name("store/chatLoad")->Unit(benchmark::kSecond)->Iterations(5)->UseManualTime();
BENCHMARK(openAndList)->Name("store/openAndList")->Unit(benchmark::kMillisecond);
BENCHMARK(page)->Name("store/page50")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(search, latin, "kangaroo")->Name("store/search/latin")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(search, cjk4, "北京天气")->Name("store/search/cjk4")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(search, cjk2, "北京")->Name("store/search/cjk2")->Unit(benchmark::kMillisecond);
BENCHMARK(chat)->Name("chat/storeOffOn")->Unit(benchmark::kSecond)->Iterations(1);

BENCHMARK_MAIN();
