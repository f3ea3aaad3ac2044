// Friend commands and events between façades through a real broker: the
// topics and envelopes on the wire, one callback per incoming command with
// the fields as sent, and nothing for the commands a user does not handle.

#include "enginetestkit.h"

#include <QLoggingCategory>

#include <gtest/gtest.h>

using namespace kit;

namespace {

using Call = std::vector<std::string>;

// Records the friend callbacks (name, then arguments as text) besides
// everything RecordingApp records.
class FriendApp : public RecordingApp {
public:
    void onFriendAdded(QString from, QString to, QString body) override
    {
        add({ "onFriendAdded", from.toStdString(), to.toStdString(), body.toStdString() });
    }
    void onFriendAccepted(QString from, QString to, int flag) override
    {
        add({ "onFriendAccepted", from.toStdString(), to.toStdString(), std::to_string(flag) });
    }
    void onFriendDeleted(QString from, QString to, int flag) override
    {
        add({ "onFriendDeleted", from.toStdString(), to.toStdString(), std::to_string(flag) });
    }
    void onFriendList(const char *json) override { add({ "onFriendList", json }); }

    std::vector<Call> waitCalls(std::size_t n)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, kTimeout, [&] { return calls_.size() >= n; })) << calls_.size();
        return calls_;
    }
    std::vector<Call> calls() { return waitCalls(0); }

private:
    void add(Call call)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back(std::move(call));
        }
        changed_.notify_all();
    }
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Call> calls_;
};

// The engine's debug lines, to see handlers run where no callback can.
std::mutex logMutex;
std::vector<std::string> engineLines;
void captureEngine(QtMsgType, const QMessageLogContext &context, const QString &text)
{
    if (context.category != nullptr && qstrcmp(context.category, "pushchat.engine") == 0) {
        std::lock_guard<std::mutex> lock(logMutex);
        engineLines.push_back(text.toStdString());
    }
}

using Friends = TwoUsers<FriendApp>;

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
    EXPECT_EQ(aliceApp.calls().size(), 1u);
    EXPECT_EQ(bobApp.calls().size(), 2u);
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
    std::vector<Call> got = aliceApp.calls();
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<Call>{ { "onFriendAccepted", "carol@im.test", "alice@im.test", "1" },
                                       { "onFriendAdded", "carol@im.test", "alice@im.test", "加我" },
                                       { "onFriendDeleted", "carol@im.test", "alice@im.test", "1" },
                                       { "onFriendList", "" },
                                       { "onFriendList", "[{\"jid\": not json" } }));
    EXPECT_TRUE(aliceApp.state().messages.empty());
    EXPECT_TRUE(aliceApp.state().rawCalls.empty());
    EXPECT_TRUE(bobApp.calls().empty());
}

TEST_F(Friends, NoReceiverConsumesFriendEvents)
{
    QLoggingCategory::setFilterRules(QStringLiteral("pushchat.engine.debug=true"));
    const QtMessageHandler previous = qInstallMessageHandler(captureEngine);
    {
        Message_lib carol{ nullptr, nullptr, "dev-c", "Carol Desk" };
        ASSERT_EQ(login(carol, broker, "carol", 5), 1);
        ASSERT_TRUE(eventually([&] {
            return countOf(brokerEvents(broker, "carol@im.test@dev-c"), "publish m/i/server@im.test/d q2") == 1;
        }));
        for (const char *topic : { "s/f/c/carol@im.test/a", "s/f/i/carol@im.test/a", "s/f/c/carol@im.test/d",
                                   "s/f/i/carol@im.test/l" })
            ASSERT_TRUE(wire.publish(topic, sealEnvelope("bob@im.test", "carol@im.test", "x", 9999, 0, 16)));
        // Carol's engine goes on: the handlers ran, and she still sends.
        const auto handled = [] {
            std::lock_guard<std::mutex> lock(logMutex);
            int n = 0;
            for (const std::string &line : engineLines) {
                for (const char *h : { "[FriendAdded]: topic:s/f/c/carol@im.test/a",
                                       "[FriendAccepted]: topic:s/f/i/carol@im.test/a",
                                       "[FriendDeleted]: topic:s/f/c/carol@im.test/d", "[FriendListIncoming]: body:x" })
                    n += line == h;
            }
            return n;
        };
        EXPECT_TRUE(eventually([&] { return handled() == 4; })) << handled();
        EXPECT_EQ(carol.addFriend("", "bob", "still here"), 1);
        EXPECT_EQ(bobApp.waitCalls(1),
                  (std::vector<Call>{ { "onFriendAdded", "carol@im.test", "bob@im.test", "still here" } }));
    }
    qInstallMessageHandler(previous);
    QLoggingCategory::setFilterRules(QString());
}

TEST_F(Friends, NothingIsSentWithoutLogin)
{
    FriendApp carolApp;
    Message_lib carol{ &carolApp, nullptr, "dev-c", "Carol Desk" };
    EXPECT_EQ(carol.addFriend("", "bob", "x"), 0);
    EXPECT_EQ(carol.acceptFriend("", "bob", "x"), 0);
    EXPECT_EQ(carol.delFriend("", "bob"), 0);
    EXPECT_EQ(carol.setFriendPropoties("", "bob", "x"), 0);
    EXPECT_EQ(carol.listFriends(1, 20, ""), 0);
    ASSERT_EQ(bob.unRegisterToImServer(), 1); // after logout too
    EXPECT_EQ(bob.addFriend("", "alice", "x"), 0);
    EXPECT_EQ(bob.listFriends(1, 20, ""), 0);
    ASSERT_TRUE(wire.roundTrip());
    // Carol has no domain yet, so look at every friend topic.
    EXPECT_FALSE(wire.waitFor(
        [](const std::vector<WireMessage> &all) {
            return std::any_of(all.begin(), all.end(),
                               [](const WireMessage &m) { return m.topic.rfind("s/f/", 0) == 0; });
        },
        0ms));
    EXPECT_TRUE(aliceApp.calls().empty());
}
