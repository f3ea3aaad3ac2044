// A long run: alice and bob chat through a private mosquitto broker at a
// steady rate (half each way) while the process's resident memory, open
// descriptors and threads are sampled. Prints one line per sample and a
// summary; exits 1 when a message was lost or duplicated, or when
// descriptors or threads grew, or memory grew by more than 10 % (2 MiB at
// least) after the first minute.
//
// Usage: soak [--minutes N] [--rate MSGS_PER_S] [--interval S] [--body BYTES]
// (defaults 10, 500, 10, 300). scripts/soak builds and runs it.

#include "message_lib.h"
#include "mosquittobroker.h"
#include "processusage.h"

#include <QString>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Counts the numbered bodies "<n> ..." that arrive, and repeats.
class Peer : public ImEventReciever {
public:
    explicit Peer(std::size_t expected) : m_seen(expected) { }
    std::atomic<bool> online{ false };
    void onConnected() override { online = true; }
    void onMessageReceive(QString, QString, QString body, int, int, QString, QString, bool) override
    {
        const std::size_t n = std::size_t(body.section(QLatin1Char(' '), 0, 0).toULong());
        std::lock_guard<std::mutex> lock(m_mutex);
        if (n >= m_seen.size())
            m_seen.resize(n + 1);
        (m_seen[n] ? m_duplicated : m_delivered)++;
        m_seen[n] = 1;
    }
    std::pair<long, long> counts() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return { m_delivered, m_duplicated };
    }

private:
    mutable std::mutex m_mutex;
    std::vector<char> m_seen;
    long m_delivered = 0, m_duplicated = 0;
};

long option(int argc, char **argv, const char *name, long fallback)
{
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], name) == 0)
            return std::atol(argv[i + 1]);
    return fallback;
}

} // namespace

int main(int argc, char **argv)
{
    const long minutes = option(argc, argv, "--minutes", 10), rate = option(argc, argv, "--rate", 500),
               interval = option(argc, argv, "--interval", 10), bodyBytes = option(argc, argv, "--body", 300);
    if (minutes <= 0 || rate <= 1 || interval <= 0 || bodyBytes < 16) {
        std::fprintf(stderr, "usage: soak [--minutes N] [--rate MSGS_PER_S] [--interval S] [--body BYTES]\n");
        return 2;
    }
    MosquittoBroker broker;
    if (!broker.start()) {
        std::fprintf(stderr, "soak: the broker did not start:\n%s\n", broker.log().c_str());
        return 2;
    }
    const std::size_t perSide = std::size_t(minutes * 60 * rate / 2 + rate);
    Peer aliceSide(perSide), bobSide(perSide);
    Message_lib alice(&aliceSide, nullptr, "soak-a", "Soak A"), bob(&bobSide, nullptr, "soak-b", "Soak B");
    alice.registerToImServer(broker.host(), broker.port(), "alice", QString(), 5, "soak.test", QString());
    bob.registerToImServer(broker.host(), broker.port(), "bob", QString(), 5, "soak.test", QString());
    for (int i = 0; i < 500 && !(aliceSide.online && bobSide.online); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!(aliceSide.online && bobSide.online)) {
        std::fprintf(stderr, "soak: the clients did not connect\n");
        return 2;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // subscriptions in force

    std::printf("soak: %ld min, %ld msg/s (half each way), %ld-byte bodies, broker pid %d, sample every %ld s\n",
        minutes, rate, bodyBytes, int(broker.pid()), interval);
    std::printf("%8s %9s %9s %7s %5s %9s %5s %7s %11s\n", "elapsed", "sent", "delivered", "refused", "dup", "rss_KiB",
        "fds", "threads", "broker_KiB");
    const std::string filler(std::size_t(bodyBytes), 'x');
    const auto start = Clock::now(), end = start + std::chrono::minutes(minutes);
    const auto period = std::chrono::nanoseconds(1000000000L / rate);
    auto nextSample = start + std::chrono::seconds(interval);
    long sent = 0, refused = 0;
    std::vector<ProcessUsage> samples;
    for (auto next = start; next < end; next += period) {
        std::this_thread::sleep_until(next);
        Message_lib &from = sent % 2 ? bob : alice;
        const long n = sent / 2; // each side numbers its own messages
        QString body = QString::number(n) + QLatin1Char(' ');
        body += QString::fromLatin1(filler.data(), int(filler.size()) - body.size());
        if (from.sendTextMessageTo("", sent % 2 ? "alice" : "bob", 5, body, BODY_TYPE_DEFAULT, false, "k", "st") == 1)
            ++sent;
        else
            ++refused;
        if (Clock::now() >= nextSample) {
            nextSample += std::chrono::seconds(interval);
            const ProcessUsage u = ProcessUsage::now();
            samples.push_back(u);
            const auto [a, ad] = aliceSide.counts();
            const auto [b, bd] = bobSide.counts();
            std::printf("%7llds %9ld %9ld %7ld %5ld %9ld %5ld %7ld %11ld\n",
                (long long)std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count(), sent, a + b,
                refused, ad + bd, u.residentKiB, u.descriptors, u.threads,
                ProcessUsage::resident(std::to_string(broker.pid())));
            std::fflush(stdout);
        }
    }
    for (int i = 0; i < 1000; ++i) { // the last ones in flight
        const auto [a, ad] = aliceSide.counts();
        const auto [b, bd] = bobSide.counts();
        if (a + b >= sent)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const auto [a, ad] = aliceSide.counts();
    const auto [b, bd] = bobSide.counts();
    const long delivered = a + b, duplicated = ad + bd, lost = sent - delivered;
    const std::size_t warm = std::min<std::size_t>(samples.size() - 1, std::size_t(60 / interval));
    if (samples.empty()) {
        std::printf("soak: too short for a sample\n");
        return lost == 0 && duplicated == 0 ? 0 : 1;
    }
    const ProcessUsage first = samples[warm], last = samples.back();
    long peakRss = 0;
    for (const ProcessUsage &u : samples)
        peakRss = std::max(peakRss, u.residentKiB);
    std::printf("\nsummary: sent %ld, delivered %ld, lost %ld, duplicated %ld, refused %ld\n", sent, delivered, lost,
        duplicated, refused);
    std::printf(
        "after the first minute -> end: resident %ld -> %ld KiB (peak %ld), descriptors %ld -> %ld, "
        "threads %ld -> %ld\n",
        first.residentKiB, last.residentKiB, peakRss, first.descriptors, last.descriptors, first.threads, last.threads);
    const long allowed = std::max(2048L, first.residentKiB / 10);
    std::string verdict;
    if (lost != 0 || duplicated != 0)
        verdict += " messages lost or duplicated;";
    if (last.descriptors > first.descriptors || last.threads > first.threads)
        verdict += " descriptors or threads grew;";
    if (last.residentKiB - first.residentKiB > allowed)
        verdict += " resident memory grew by more than " + std::to_string(allowed) + " KiB;";
    std::printf("verdict: %s\n", verdict.empty() ? "flat" : verdict.c_str());
    return verdict.empty() ? 0 : 1;
}
