// Friend commands and events between façades through a real broker: the
// topics and envelopes on the wire, one callback per incoming command with
// the fields as sent, and nothing for the commands a user does not handle.

#include "enginetestkit.h"

#include <gtest/gtest.h>

using namespace kit;

namespace {

using Call = std::vector<std::string>;
using Friends = TwoUsers<>;

} // namespace

TEST_F(Friends, RequestAcceptDeleteEndToEnd)
{
    // A bare peer id is completed, in the topic and the receiver.
    EXPECT_EQ(alice.addFriend("ignored@else.where", "bob", QString::fromUtf8("我是 alice")), 1);
    EXPECT_EQ(only("s/f/c/bob@im.test/a", "alice@im.test", "bob@im.test"), "我是 alice");
    EXPECT_EQ(bobApp.waitCalls(1),
              (std::vector<Call>{ { "onFriendAdded", "alice@im.test", "bob@im.test", "我是 alice" } }));

    EXPECT_EQ(bob.acceptFriend("", "alice@im.test", "welcome"), 1);
    EXPECT_EQ(only("s/f/i/alice@im.test/a", "bob@im.test", "alice@im.test"), "welcome");
    EXPECT_EQ(aliceApp.waitCalls(1),
              (std::vector<Call>{ { "onFriendAccepted", "bob@im.test", "alice@im.test", "1" } }));

    // The façade's delete always says "nothing".
    EXPECT_EQ(alice.delFriend("", "bob"), 1);
    EXPECT_EQ(only("s/f/c/bob@im.test/d", "alice@im.test", "bob@im.test"), "nothing");
    EXPECT_EQ(bobApp.waitCalls(2).back(), (Call{ "onFriendDeleted", "alice@im.test", "bob@im.test", "1" }));

    ASSERT_TRUE(wire.roundTrip());
    EXPECT_EQ(aliceApp.state().calls.size(), 1u);
    EXPECT_EQ(bobApp.state().calls.size(), 2u);
    EXPECT_TRUE(aliceApp.state().messages.empty());
    EXPECT_TRUE(bobApp.state().messages.empty());
}

TEST_F(Friends, ServerRequests)
{
    // Properties: the server's topic, the (completed) friend as receiver.
    EXPECT_EQ(alice.setFriendPropoties("", "bob", R"({"remark":"B"})"), 1);
    EXPECT_EQ(only("s/f/c/server@im.test/s", "alice@im.test", "bob@im.test"), R"({"remark":"B"})");
    EXPECT_EQ(alice.setFriendPropoties("", "x@", "p"), 1); // an "@" anywhere: unchanged
    ASSERT_TRUE(wire.waitForCount("s/f/c/server@im.test/s", 2));
    EXPECT_EQ(wire.envelopes("s/f/c/server@im.test/s").back().to, "x@");

    EXPECT_EQ(alice.listFriends(1, 20, ""), 1);
    EXPECT_EQ(only("s/f/c/server@im.test/l", "alice@im.test", kServer),
              R"({"count":20,"last_friend_id":"","type":1})");
    EXPECT_EQ(bob.listFriends(-2, 0, QString::fromUtf8("游标\"9")), 1);
    ASSERT_TRUE(wire.waitForCount("s/f/c/server@im.test/l", 2));
    EXPECT_EQ(wire.envelopes("s/f/c/server@im.test/l").back().body,
              R"({"count":0,"last_friend_id":"游标\"9","type":-2})");
}

TEST_F(Friends, EachIncomingChainItsOwnCallback)
{
    const auto send = [&](const std::string &topic, const QString &body, int level = 9999) {
        ASSERT_TRUE(wire.publish(topic, sealEnvelope("carol@im.test", "alice@im.test", body, level, 0, 16)));
    };
    send("s/f/c/alice@im.test/a", QString::fromUtf8("加我"), 1); // any level
    send("s/f/i/alice@im.test/a", "ignored");
    send("s/f/c/alice@im.test/d", "nothing");
    send("s/f/i/alice@im.test/l", "[{\"jid\": not json");
    send("s/f/i/alice@im.test/l", "");
    // Handled without a callback, or not at all.
    send("s/f/c/alice@im.test/s", R"({"remark":"C"})");
    send("s/f/c/alice@im.test/l", R"({"count":1})");
    send("s/f/i/alice@im.test/d", "gone");
    aliceApp.waitCalls(5);
    ASSERT_TRUE(wire.roundTrip());
    std::vector<Call> got = aliceApp.state().calls;
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<Call>{ { "onFriendAccepted", "carol@im.test", "alice@im.test", "1" },
                                       { "onFriendAdded", "carol@im.test", "alice@im.test", "加我" },
                                       { "onFriendDeleted", "carol@im.test", "alice@im.test", "1" },
                                       { "onFriendList", "" },
                                       { "onFriendList", "[{\"jid\": not json" } }));
    EXPECT_TRUE(aliceApp.state().messages.empty());
    EXPECT_TRUE(bobApp.state().calls.empty());
}
