// History requests and replies, and remote-desktop signalling between two
// façades through a real broker: topics and bodies on the wire, and exactly
// one callback, with the text as sent, per incoming message.

#include "enginetestkit.h"

#include <gtest/gtest.h>

using namespace kit;

namespace {

using Call = std::vector<std::string>;

constexpr const char *kHistoryCmd = "s/h/c/server@im.test/";

// Bob's level is negative.
class EngineHistoryRdp : public TwoUsers<> {
protected:
    EngineHistoryRdp() : TwoUsers(5, -3) {}
};

} // namespace

TEST_F(EngineHistoryRdp, HistoryRequestsAndReplies)
{
    alice.fetchConversations(MediaInfo::MessageType(1), 0, 20);
    alice.getMsgByConvid("", 2, 10);
    EXPECT_EQ(only(std::string(kHistoryCmd) + "c", "alice@im.test", kServer),
              R"({"message_type":1,"my_sec_level":5,"page":0,"pagesize":20})");
    EXPECT_EQ(only(std::string(kHistoryCmd) + "vd", "alice@im.test", kServer),
              R"({"conv_id":"","my_sec_level":5,"page":2,"pagesize":10})");

    // Sync and pull share one command.
    bob.startSyncMessage("u-1");
    ASSERT_TRUE(wire.waitForCount(std::string(kHistoryCmd) + "l", 1));
    bob.startPullMessage(2, 30, 15, "u-2");
    ASSERT_TRUE(wire.waitForCount(std::string(kHistoryCmd) + "l", 2));
    const std::vector<Envelope> lists = wire.envelopes(std::string(kHistoryCmd) + "l");
    ASSERT_EQ(lists.size(), 2u);
    EXPECT_EQ(lists[0].from, "bob@im.test");
    EXPECT_EQ(lists[0].body, R"({"msg_uuid":"u-1","my_sec_level":-3})");
    EXPECT_EQ(lists[1].body, R"({"count":15,"msg_uuid":"u-2","my_sec_level":-3,"pull_type":2,"start":30})");

    // Replies: each chain its own callback, the body untouched (an empty
    // one as an empty text), whatever its security level.
    const auto reply = [&](const char *sub, const QString &body, int level = 9999) {
        ASSERT_TRUE(wire.publish(std::string("s/h/i/alice@im.test/") + sub,
                                 sealEnvelope(kServer, "alice@im.test", body, level, 0, 16)));
    };
    reply("l", "");
    reply("c", R"([{"conv_id":"c1","unread":2}])");
    reply("vd", QString::fromUtf8("详情 {not json"), 1);
    reply("l", "second");
    EXPECT_EQ(aliceApp.waitCalls(4), (std::vector<Call>{ { "onHistoryMessages", "" },
                                                         { "onConversations", R"([{"conv_id":"c1","unread":2}])" },
                                                         { "onConversationDetail", "详情 {not json" },
                                                         { "onHistoryMessages", "second" } }));
    ASSERT_TRUE(wire.roundTrip());
    EXPECT_EQ(aliceApp.state().calls.size(), 4u);
    EXPECT_TRUE(aliceApp.state().messages.empty());
    EXPECT_TRUE(bobApp.state().calls.empty());
}

TEST_F(EngineHistoryRdp, RemoteDesktopExchange)
{
    // Requests: a bare peer id is completed, in the topic and the receiver.
    EXPECT_EQ(alice.remoteDesktopControl("ignored@else.where", "bob", "may I?"), 1);
    EXPECT_EQ(alice.remoteDesktopBeControl("", "bob@im.test", QString::fromUtf8("vnc://10.0.0.1 — 请")), 1);
    EXPECT_EQ(only("s/r/c/bob@im.test/c", "alice@im.test", "bob@im.test"), "may I?");
    EXPECT_EQ(only("s/r/c/bob@im.test/b", "alice@im.test", "bob@im.test"), "vnc://10.0.0.1 — 请");

    // Replies, one with an empty body.
    EXPECT_EQ(bob.remoteDesktopControlReply("", "alice", ""), 1);
    EXPECT_EQ(bob.remoteDesktopBeControlReply("", "alice", "accepted"), 1);
    EXPECT_EQ(only("s/r/i/alice@im.test/c", "bob@im.test", "alice@im.test"), "");
    EXPECT_EQ(only("s/r/i/alice@im.test/b", "bob@im.test", "alice@im.test"), "accepted");

    std::vector<Call> atBob = bobApp.waitCalls(2);
    std::vector<Call> atAlice = aliceApp.waitCalls(2);
    std::sort(atBob.begin(), atBob.end());
    std::sort(atAlice.begin(), atAlice.end());
    EXPECT_EQ(atBob,
              (std::vector<Call>{
                  { "onRemoteDesktopBeControlRequest", "alice@im.test", "bob@im.test", "vnc://10.0.0.1 — 请" },
                  { "onRemoteDesktopControlRequest", "alice@im.test", "bob@im.test", "may I?" } }));
    EXPECT_EQ(atAlice,
              (std::vector<Call>{ { "onRemoteDesktopBeControlResponse", "bob@im.test", "alice@im.test", "accepted" },
                                  { "onRemoteDesktopControlResponse", "bob@im.test", "alice@im.test", "" } }));
    ASSERT_TRUE(wire.roundTrip());
    EXPECT_EQ(aliceApp.state().calls.size(), 2u);
    EXPECT_EQ(bobApp.state().calls.size(), 2u);
    EXPECT_TRUE(aliceApp.state().messages.empty());
    EXPECT_TRUE(bobApp.state().messages.empty());
}
