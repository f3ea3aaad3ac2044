// PushClient against one real broker shared by all cases. The broker keeps
// sessions across restarts and refuses (CONNACK 5) ids not starting with "c-".

#include "eventlog.h"
#include "mosquittobroker.h"
#include "pushclient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <tuple>

namespace {

using namespace std::chrono_literals;
using State = PushClient::State;
using R = PushResult;
constexpr int kOk = 0;

// Each callback as one line: "topic|payload|qos", or "status|0/1".
struct Recorder : PushEventReciever {
    EventLog log;
    std::function<void(const std::string &topic, const std::string &payload)> onMessage; // set before connecting

    void messgeRecievedMore(int, char *topic, void *payload, int length, int qos, bool retain) override
    {
        const std::string text(static_cast<char *>(payload), static_cast<std::size_t>(length));
        EXPECT_TRUE(!retain && static_cast<char *>(payload)[length] == '\0') << topic;
        if (onMessage)
            onMessage(topic, text);
        log.add(fields(topic, text, qos));
    }
    void connectStatus(bool connected) override { log.add(fields("status", connected)); }
    std::string statuses() const // as "101"
    {
        std::string out;
        for (const std::string &line : log.starting("status|"))
            out += line.back();
        return out;
    }
    bool waitStatuses(const std::string &expected)
    {
        return eventually([&] { return statuses() == expected; });
    }
};

// Reconnection delays and outbox bounds (count, bytes); the rest as by default.
const PushClientOptions fast{ 20ms, 200ms, 1000, 1 << 24, 1s, {}, {}, {}, {} },
    slow{ 30s, 30s, 1000, 1 << 24, 1s, {}, {}, {}, {} }, bounded{ 20ms, 200ms, 5, 100, 1s, {}, {}, {}, {} };

std::unique_ptr<PushClient> makeClient(std::string id, Recorder &recorder, const PushClientOptions &o = fast)
{
    auto client = std::make_unique<PushClient>(id.data(), o);
    client->setEventRecv(&recorder);
    return client;
}

class PushClientTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(m_broker.start()) << m_broker.log(); }

    static std::unique_ptr<PushClient> online(const std::string &id, Recorder &recorder)
    {
        auto client = makeClient(id, recorder);
        EXPECT_EQ(client->start_connect(m_broker.host(), m_broker.port(), 60), kOk);
        EXPECT_TRUE(recorder.waitStatuses("1")) << m_broker.log();
        return client;
    }
    // Once the client's own probe, sent after the request, is back, the subscription is in force.
    static bool subscribed(PushClient &client, Recorder &recorder, std::string filter, const std::string &probe)
    {
        return client.subscribe({ filter }, 2) == kOk && client.publish(probe.c_str(), "probe", 2, false) == kOk &&
               recorder.log.waitForPrefix(probe + "|probe");
    }
    static std::size_t count(const std::string &text)
    {
        return std::size_t(QString::fromStdString(m_broker.log()).count(QString::fromStdString(text)));
    }
    static bool logged(const std::string &text)
    {
        return eventually([&] { return count(text) > 0; });
    }

    static inline MosquittoBroker m_broker{ MosquittoBroker::Options{ true, true, "clientid_prefixes c-" } };
};

TEST_F(PushClientTest, RequestsAreCheckedBoundedQueuedThenDeliveredIntact)
{
    Recorder sinkSide, side, spareSide;
    std::atomic<PushClient *> echo{ nullptr };
    sinkSide.onMessage = [&](const std::string &topic, const std::string &payload) {
        if (topic == "q/m/in") {
            EXPECT_EQ(echo.load()->publish("q/m/out", payload.c_str(), 2, false), kOk);
        }
    };
    auto sink = online("c-sink1", sinkSide);
    echo = sink.get();
    ASSERT_TRUE(subscribed(*sink, sinkSide, "q/#", "q/probe"));
    auto client = makeClient("c-queued", side, bounded);
    auto spare = makeClient("c-spare", spareSide);
    auto noId = makeClient("", side);
    const char *host = m_broker.host();
    const int port = m_broker.port();
    const std::string longest(65535, 't'), tooLong(65536, 't'), fill(84, 'b'), overflow(85, 'b');
    char bad[] = "q/#/b", all[] = "q/#", other[] = "q/y";
    const std::tuple<const char *, int, R> rows[] = {
        { "publish to #", client->publish("q/#", "x", 2, false), R::InvalidArgument },
        { "publish to null", client->publish(nullptr, "x", 2, false), R::InvalidArgument },
        { "publish to bad UTF-8", client->publish("q/\xC3", "x", 2, false), R::InvalidArgument },
        { "publish qos 3", client->publish("q/a", "x", 3, false), R::InvalidArgument },
        { "publish to 65536 bytes", client->publish(tooLong.c_str(), "", 2, false), R::InvalidArgument },
        { "publish to 65535 bytes", client->publish(longest.c_str(), "", 2, false), R::OutboxFull },
        { "publish qos 0 offline", client->publish("q/a", "x", 0, false), R::NotConnected },
        { "subscribe bad filter", client->subscribe(bad), R::InvalidArgument },
        { "unsubscribe bad filter", client->unsubscribe(bad), R::InvalidArgument },
        { "will to #", client->will_set("w/#", nullptr, 2, false), R::InvalidArgument },
        { "will qos 3", client->will_set("w", nullptr, 3, false), R::InvalidArgument },
        { "will qos 0", client->will_set("w", nullptr, 0, false), R::Ok },
        { "will cleared", client->will_set(nullptr, nullptr, 0, false), R::Ok },
        { "connect null host", client->start_connect(nullptr, port, 60), R::InvalidArgument },
        { "connect empty host", client->start_connect("", port, 60), R::InvalidArgument },
        { "connect port 0", client->start_connect(host, 0, 60), R::InvalidArgument },
        { "connect port 65536", client->start_connect(host, 65536, 60), R::InvalidArgument },
        { "connect keepalive -1", client->start_connect(host, port, -1), R::InvalidArgument },
        { "connect keepalive 65536", client->start_connect(host, port, 65536), R::InvalidArgument },
        { "no id: publish", noId->publish("q/a", "x", 2, false), R::InvalidArgument },
        { "no id: subscribe", noId->subscribe(all), R::InvalidArgument },
        { "no id: connect", noId->start_connect(host, port, 60), R::InvalidArgument },
        { "connect port 1", spare->start_connect(host, 1, 60), R::Ok },
        { "connect port 65535", spare->start_connect(host, 65535, 65535), R::Ok },
        { "connect keepalive 0", spare->start_connect(host, port, 0), R::Ok },
        // Up to 5 requests or 100 bytes of topic and payload wait for the link.
        { "queue subscribe", client->subscribe({ all }, 2), R::Ok },                // 3 bytes
        { "queue qos 1", client->publish("q/a", "1", 1, false), R::Ok },            // 7
        { "queue null payload", client->publish("q/a", nullptr, 2, false), R::Ok }, // 10
        { "queue unsubscribe", client->unsubscribe(other), R::Ok },                 // 13
        { "over the byte bound", client->publish("q/a", overflow.c_str(), 2, false), R::OutboxFull },
        { "up to the byte bound", client->publish("q/a", fill.c_str(), 2, false), R::Ok },
        { "full: publish", client->publish("q/a", "", 1, false), R::OutboxFull },
        { "full: subscribe", client->subscribe(other), R::OutboxFull },
        { "full: unsubscribe", client->unsubscribe(other), R::OutboxFull },
    };
    for (const auto &[what, got, want] : rows)
        EXPECT_EQ(got, static_cast<int>(want)) << what;
    EXPECT_EQ(fields(client->pendingCount(), client->state()), fields(5, State::Idle));

    // Keepalive 2 is raised to 5. Its own subscription goes out first, so it hears its messages too.
    ASSERT_EQ(client->start_connect(host, port, 2), kOk);
    const Lines queued = { "q/a|1|1", "q/a||2", "q/a|" + fill + "|2" };
    for (Recorder *r : { &sinkSide, &side })
        EXPECT_TRUE(eventually([&] { return r->log.starting("q/a|") == queued; })) << r->log.lines().size();
    EXPECT_TRUE(eventually([&] { return client->pendingCount() == 0; }));
    EXPECT_TRUE(logged("as c-queued (p2, c0, k5)") && logged("as c-spare (p2, c0, k0)")) << m_broker.log();

    // Any bytes, large payloads, every QoS; each echoed from inside the receiving callback.
    std::string allBytes;
    for (int c = 1; c < 256; ++c)
        allBytes.push_back(static_cast<char>(c));
    const std::pair<std::string, int> payloads[] = { { "x", 0 }, { allBytes, 2 }, { std::string(70000, 'z'), 1 } };
    Lines expected;
    for (const auto &[payload, qos] : payloads) {
        ASSERT_EQ(sink->publish("q/m/in", payload.c_str(), qos, true), kOk);
        expected.push_back(fields("q/m/in", payload, qos));
        expected.push_back(fields("q/m/out", payload, 2));
        ASSERT_TRUE(side.log.waitForPrefix(expected.back()) && sinkSide.log.waitForPrefix(expected.back()));
    }
    EXPECT_EQ(sinkSide.log.starting("q/m/"), expected);
    EXPECT_EQ(side.log.starting("q/m/"), expected);
    // Nothing was retained: a new subscription brings back only the probe.
    EXPECT_TRUE(subscribed(*client, side, "q/m/#", "q/m/probe"));
}

TEST_F(PushClientTest, OfflineRequestsWaitForTheBrokerEachChangeIsReportedOnceRefusalsForGood)
{
    Recorder sinkSide, side, patientSide, refusedSide;
    auto sink = online("c-sink2", sinkSide);
    ASSERT_TRUE(subscribed(*sink, sinkSide, "r/#", "r/probe"));
    auto client = online("c-eager", side);
    m_broker.stop();
    ASSERT_TRUE(side.waitStatuses("10"));
    Lines sent;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(client->publish("r/m", std::to_string(i).c_str(), 2, false), kOk);
        sent.push_back(fields("r/m", i, 2));
    }
    auto patient = makeClient("c-patient", patientSide, slow);
    ASSERT_EQ(patient->start_connect(m_broker.host(), m_broker.port(), 60), kOk);
    ASSERT_TRUE(patientSide.waitStatuses("0"));
    std::this_thread::sleep_for(200ms); // the eager client retries meanwhile, unreported

    ASSERT_TRUE(m_broker.start()) << m_broker.log();
    EXPECT_TRUE(side.waitStatuses("101"));
    EXPECT_TRUE(eventually([&] { return sinkSide.log.starting("r/m|") == sent; }));
    EXPECT_TRUE(eventually([&] { return client->pendingCount() == 0; }));
    // The patient client keeps to its delay unless asked again.
    EXPECT_EQ(fields(patientSide.statuses(), patient->state()), fields("0", State::Connecting));
    ASSERT_EQ(patient->start_connect(m_broker.host(), m_broker.port(), 60), kOk);
    EXPECT_TRUE(patientSide.waitStatuses("01"));

    // A refusal (CONNACK 5) is reported once and retried only when asked.
    auto refused = makeClient("refused", refusedSide);
    ASSERT_EQ(refused->start_connect(m_broker.host(), m_broker.port(), 60), kOk);
    ASSERT_TRUE(refusedSide.waitStatuses("0"));
    std::this_thread::sleep_for(300ms);                       // a retrying client would be back by now
    EXPECT_EQ(refused->publish("t", "later", 2, false), kOk); // kept for a later connection
    EXPECT_EQ(fields(count("not authorised"), refused->state(), refused->pendingCount()), fields(1, State::Refused, 1));
    ASSERT_EQ(refused->start_connect(m_broker.host(), m_broker.port(), 60), kOk);
    EXPECT_TRUE(eventually([&] { return count("not authorised") == 2 && refused->state() == State::Refused; }));
    EXPECT_EQ(refusedSide.statuses(), "0");
}

TEST_F(PushClientTest, AnEndFlushesAndSaysDisconnect)
{
    Recorder sinkSide, side, victimSide;
    auto sink = online("c-sink3", sinkSide);
    ASSERT_TRUE(subscribed(*sink, sinkSide, "d/#", "d/probe"));
    auto client = online("c-leaving", side);
    Lines sent;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(client->publish("d/m", std::to_string(i).c_str(), 2, false), kOk);
        sent.push_back(fields("d/m", i, 2));
    }
    client.reset();
    EXPECT_TRUE(eventually([&] { return sinkSide.log.starting("d/m|") == sent; }));

    // Destroyed from its own callback while messages keep coming: none is
    // delivered after that one, and the thread still says DISCONNECT.
    std::atomic<bool> gone{ false };
    std::unique_ptr<PushClient> victim;
    victimSide.onMessage = [&](const std::string &, const std::string &) {
        if (!gone) {
            victim.reset();
            gone = true;
        }
    };
    victim = makeClient("c-victim", victimSide);
    ASSERT_EQ(victim->start_connect(m_broker.host(), m_broker.port(), 60), kOk);
    ASSERT_TRUE(victimSide.waitStatuses("1"));
    char filter[] = "v/#";
    ASSERT_EQ(victim->subscribe({ filter }, 2), kOk);
    ASSERT_TRUE(eventually([&] {
        for (int i = 0; i < 20; ++i)
            sink->publish("v/x", "hello", 1, false);
        return gone.load();
    }));
    EXPECT_TRUE(logged("Client c-leaving disconnected.") && logged("Client c-victim disconnected.")) << m_broker.log();
    EXPECT_EQ(victimSide.log.starting("v/").size(), 1u);
}

} // namespace
