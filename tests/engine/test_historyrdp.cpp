// History requests and replies, and remote-desktop signalling between two
// façades, through a real broker: topics and bodies on the wire, and
// exactly one callback, with the text as sent, per incoming message.

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

    static std::vector<Call> waitCalls(RecordingApp &app, std::size_t n)
    {
        EXPECT_TRUE(app.waitFor([&](const AppState &s) { return s.rawCalls.size() >= n; }));
        return app.state().rawCalls;
    }
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

    // Sync and pull share one command; bob's level is negative.
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
    const std::vector<Call> got = waitCalls(aliceApp, 4);
    EXPECT_EQ(got, (std::vector<Call>{ { "onHistoryMessages", "" },
                                       { "onConversations", R"([{"conv_id":"c1","unread":2}])" },
                                       { "onConversationDetail", "详情 {not json" },
                                       { "onHistoryMessages", "second" } }));
    ASSERT_TRUE(wire.roundTrip());
    EXPECT_TRUE(aliceApp.state().messages.empty());
    EXPECT_TRUE(bobApp.state().rawCalls.empty());
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

    std::vector<Call> atBob = waitCalls(bobApp, 2);
    std::vector<Call> atAlice = waitCalls(aliceApp, 2);
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
    EXPECT_EQ(aliceApp.state().rawCalls.size(), 2u);
    EXPECT_EQ(bobApp.state().rawCalls.size(), 2u);
    EXPECT_TRUE(aliceApp.state().messages.empty());
    EXPECT_TRUE(bobApp.state().messages.empty());
}

TEST_F(EngineHistoryRdp, NothingIsSentWithoutLogin)
{
    RecordingApp carolApp;
    Message_lib carol{ &carolApp, nullptr, "dev-c", "Carol Desk" };
    carol.fetchConversations(MediaInfo::MessageType(1), 0, 20);
    carol.getMsgByConvid("c1", 0, 20);
    carol.startSyncMessage("u-1");
    carol.startPullMessage(1, 0, 5, "u-1");
    EXPECT_EQ(carol.remoteDesktopControl("", "bob", "x"), 0);
    EXPECT_EQ(carol.remoteDesktopBeControl("", "bob", "x"), 0);
    EXPECT_EQ(carol.remoteDesktopControlReply("", "bob", "x"), 0);
    EXPECT_EQ(carol.remoteDesktopBeControlReply("", "bob", "x"), 0);
    // After logout too.
    ASSERT_EQ(bob.unRegisterToImServer(), 1);
    bob.startSyncMessage("u-1");
    EXPECT_EQ(bob.remoteDesktopControl("", "alice", "x"), 0);

    // Carol has no domain yet: whatever she sent would not be on a topic
    // known in advance, so count every history and remote-desktop topic.
    ASSERT_TRUE(wire.roundTrip());
    std::size_t sent = 0;
    wire.waitFor(
        [&](const std::vector<WireMessage> &all) {
            sent = std::size_t(std::count_if(all.begin(), all.end(), [](const WireMessage &m) {
                return m.topic.rfind("s/h/", 0) == 0 || m.topic.rfind("s/r/", 0) == 0;
            }));
            return true;
        },
        0ms);
    EXPECT_EQ(sent, 0u);
}
