#include "pushoutbox.h"

#include <gtest/gtest.h>

namespace {

PushOutbox::Request publication(std::string payload)
{
    return {PushOutbox::Request::Kind::Publish, "t", std::move(payload), 2};
}

TEST(PushOutbox, QueueKeepsOrderAndCountsInFlightAgainstTheSameBound)
{
    PushOutbox outbox(3, 1000);
    ASSERT_TRUE(outbox.enqueue(publication("a")));
    ASSERT_TRUE(outbox.enqueue(publication("b")));
    outbox.trackInFlight(7, 10);
    EXPECT_EQ(outbox.count(), 3u);
    EXPECT_FALSE(outbox.enqueue(publication("c"))); // full: refused, nothing lost
    EXPECT_EQ(outbox.front().payload, "a");
    outbox.popFront();
    EXPECT_EQ(outbox.front().payload, "b");

    outbox.acknowledge(7);
    outbox.acknowledge(8); // not ours (a QoS 0 id): ignored
    EXPECT_EQ(outbox.count(), 1u);
    EXPECT_TRUE(outbox.enqueue(publication("c")));
    outbox.popFront();
    EXPECT_EQ(outbox.front().payload, "c");
}

TEST(PushOutbox, ByteBoundCountsTopicAndPayloadAndIsFreedOnAcknowledge)
{
    PushOutbox outbox(100, 10);
    EXPECT_TRUE(outbox.enqueue(publication("1234"))); // 1 + 4 bytes
    EXPECT_FALSE(outbox.enqueue(publication("12345")));
    EXPECT_TRUE(outbox.hasRoomFor(5));
    EXPECT_FALSE(outbox.hasRoomFor(6));
    EXPECT_FALSE(outbox.hasRoomFor(static_cast<std::size_t>(-1))); // no wrap-around

    const std::size_t size = PushOutbox::sizeOf(outbox.front());
    outbox.popFront();
    outbox.trackInFlight(1, size);
    EXPECT_EQ(outbox.bytes(), 5u);
    outbox.trackInFlight(1, 3); // reused id replaces, never leaks
    EXPECT_EQ(outbox.bytes(), 3u);
    outbox.acknowledge(1);
    EXPECT_EQ(outbox.bytes(), 0u);
    EXPECT_EQ(outbox.count(), 0u);
}

TEST(PushOutbox, MessageBoundStaysBelowTheMessageIdSpace)
{
    PushOutbox outbox(1000000, static_cast<std::size_t>(-1));
    for (int mid = 1; mid <= 65000; ++mid)
        outbox.trackInFlight(mid, 0);
    EXPECT_FALSE(outbox.hasRoomFor(0));
}

} // namespace
