#include "eventlog.h"
#include "pushbackoff.h"
#include "pushduplicatefilter.h"
#include "pushoutbox.h"
#include "pushtopicrestorer.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

// Each delay lies within half to all of its step; steps double from the
// minimum (at least 1 ms) up to the maximum and start over after reset().
TEST(PushParts, BackoffDoublesToTheMaximumWithJitter)
{
    const std::pair<PushBackoff, std::vector<long long>> rows[] = {
        { { std::chrono::milliseconds(100), std::chrono::milliseconds(1000) }, { 100, 200, 400, 800, 1000, 1000 } },
        { { std::chrono::milliseconds(0), std::chrono::milliseconds(4) }, { 1, 2, 4, 4 } },
        { { std::chrono::milliseconds(300), std::chrono::milliseconds(50) }, { 300, 300 } }
    };
    for (auto [backoff, steps] : rows) {
        long long low = steps.back(), high = 0;
        for (int round = 0; round < 40; ++round, backoff.reset()) {
            long long delay = 0;
            for (long long step : steps) {
                delay = backoff.next().count();
                EXPECT_TRUE(delay >= step - step / 2 && delay <= step) << fields(steps[0], step, delay);
            }
            low = std::min(low, delay);
            high = std::max(high, delay);
        }
        // The delays of the last step spread over its range.
        EXPECT_TRUE(low * 10 < steps.back() * 6 && high * 10 > steps.back() * 9) << low << ".." << high;
    }
}

// Queued requests and in-flight publications share one bound in count and
// in bytes (topic + payload); the queue keeps its order.
TEST(PushParts, OutboxBoundsQueueAndInFlightTogether)
{
    PushOutbox outbox(3, 10);
    const auto add = [&](const char *p) {
        return outbox.enqueue({ PushOutbox::Request::Kind::Publish, "t", p, 2, {} });
    };
    std::string room; // 10 bytes fit, not 11; then 2 + 9 bytes do not, 2 + 8 do, exactly
    for (bool yes : { outbox.hasRoomFor(10), outbox.hasRoomFor(11), outbox.hasRoomFor(std::size_t(-1)), add("a"),
             add("12345678"), add("1234567"), outbox.hasRoomFor(0), outbox.hasRoomFor(1) })
        room += yes ? '1' : '0';
    EXPECT_EQ(room, "10010110");
    outbox.popFront();
    outbox.trackInFlight(7, 2);
    outbox.trackInFlight(7, 1); // a reused id replaces the old entry
    EXPECT_EQ(fields(outbox.count(), outbox.bytes(), outbox.front().payload), "2|9|1234567");
    EXPECT_TRUE(add(""));
    EXPECT_FALSE(outbox.hasRoomFor(0)); // 3 requests
    outbox.acknowledge(8);              // unknown id: ignored
    outbox.acknowledge(7);
    EXPECT_EQ(fields(outbox.count(), outbox.bytes(), outbox.hasInFlight()), "2|9|0");
    outbox.clearQueued();
    EXPECT_EQ(fields(outbox.count(), outbox.bytes(), outbox.hasQueued()), "0|0|0");
    for (int mid : { 3, 4, 5 }) // SUBSCRIBEs: pending, outside the bound, forgotten with the link
        outbox.trackRequest(mid);
    outbox.answered(4);
    EXPECT_EQ(fields(outbox.count(), outbox.hasRoomFor(0)), "2|1");
    outbox.forgetRequests();
    EXPECT_EQ(outbox.count(), 0u);
}

// A repeat of topic and payload from an earlier connection, within the last
// 4096 deliveries and 5 minutes; a live connection's deliveries always pass.
TEST(PushParts, DuplicateFilterWindow)
{
    PushDuplicateFilter filter;
    using C = PushDuplicateFilter::Clock;
    const C::time_point t0{}, edge = t0 + PushDuplicateFilter::kMaxAge, late = edge + std::chrono::seconds(1);
    const std::tuple<const char *, const char *, int, C::time_point, bool> rows[] = { { "t", "a", 1, t0, false },
        { "t", "a", 1, t0, false }, { "t", "a", 2, t0, true }, { "u", "a", 2, t0, false }, { "t", "b", 2, t0, false },
        { "ta", "", 2, t0, false }, { "", "ta", 2, t0, false }, { "t", "a", 3, edge, true },
        { "t", "a", 3, late, false }, { "t", "a", 3, late, false }, { "t", "a", 4, late, true } };
    for (const auto &[topic, payload, connection, at, repeated] : rows)
        EXPECT_EQ(filter.repeated(topic, payload, connection, at), repeated) << topic << "|" << payload << connection;
    for (std::size_t i = 0; filter.size() < PushDuplicateFilter::kMaxEntries; ++i)
        filter.repeated("n", std::to_string(i), 4, late);
    filter.repeated("n", "one more", 4, late);
    EXPECT_TRUE(filter.repeated("t", "a", 5, late)); // its second entry is the oldest of 4096
    filter.repeated("n", "and one more", 4, late);
    EXPECT_FALSE(filter.repeated("t", "a", 5, late)); // both pushed out
}

// A delivery whose dots came back as '/' takes the levels of the held
// filter it matches that way; one that a held filter matches as it stands
// is left alone, as is anything once its filter is released.
TEST(PushParts, TopicRestorerGivesDotsBack)
{
    PushTopicRestorer topics;
    topics.hold({ "m/i/bob@im.test/#", "m/i/ann@im/#", "x/a.b", "m/ntc/#", "w/+/c.d/#" });
    const std::pair<std::string, const char *> rows[] = { { "m/i/bob@im/test/n", "m/i/bob@im.test/n" },
        { "m/i/bob@im/test", "m/i/bob@im.test" }, { "m/i/bob@im.test/n", "m/i/bob@im.test/n" }, { "x/a/b", "x/a.b" },
        { "x/a/b/c", "x/a/b/c" }, { "w/v/c/d/e", "w/v/c/d/e" }, { "m/i/bob@im/tester/n", "m/i/bob@im/tester/n" },
        { "m/i/ann@im/test", "m/i/ann@im/test" }, { "", "" } };
    for (auto [topic, restored] : rows)
        EXPECT_EQ((topics.restore(topic), topic), restored);
    topics.hold({ "m/i/bob@im/test/#" }); // now matched as it stands
    topics.release({ "x/a.b" });
    for (std::string topic : { "m/i/bob@im/test/n", "x/a/b" })
        EXPECT_FALSE(topics.restore(topic)) << topic;
}

} // namespace
