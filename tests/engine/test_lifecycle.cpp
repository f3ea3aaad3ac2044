// The connection lifecycle as the broker and the wire see it: the online
// sequence, the orderly logout, a login over a live connection, and a
// façade without callbacks.

#include "enginetestkit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace kit;

namespace {

std::vector<std::string> slice(const std::vector<std::string> &events, std::size_t from, std::size_t to)
{
    return { events.begin() + long(from), events.begin() + long(std::min(to, events.size())) };
}

std::string presenceBody(const char *deviceId, const char *deviceName, const char *text, int type)
{
    return std::string(R"({"device_id":")") + deviceId + R"(","device_name":")" + deviceName + R"(","text":")" +
           text + R"(","type":)" + std::to_string(type) + "}";
}

} // namespace

// Whatever a façade is asked before its first login is dropped, not queued
// for later; then the online sequence.
TEST(EngineLifecycle, NothingBeforeLoginThenTheOnlineSequence)
{
    MosquittoBroker broker(brokerOptions());
    ASSERT_TRUE(broker.start()) << broker.log();
    WireObserver wire;
    ASSERT_TRUE(wire.start(broker));

    RecordingApp aliceApp, bobApp;
    Message_lib alice(&aliceApp, nullptr, "dev-a", "Alice Desk");
    Message_lib bob(&bobApp, nullptr, "dev-b", "Bob Desk");

    EXPECT_EQ(alice.unRegisterToImServer(), 1);
    EXPECT_EQ(alice.sendTextMessageTo("", "bob", 5, "x", BODY_TYPE_DEFAULT, false, "", ""), 0);
    EXPECT_EQ(alice.sendLocation("bob@im.test", "1", "2"), 0);
    EXPECT_EQ(alice.modifyMessageStatus("u", MSG_STATUS_NONE), 1);
    EXPECT_EQ(alice.engine()->subscribe_message_group({ "r0@conference.im.test" }), 1);
    EXPECT_TRUE(alice.engine()->subscribedRoomJids().isEmpty());
    alice.fetchConversations(MediaInfo::MessageType(1), 0, 20);
    alice.getMsgByConvid("c1", 0, 20);
    alice.startSyncMessage("u-1");
    alice.startPullMessage(1, 0, 5, "u-1");
    EXPECT_EQ(alice.remoteDesktopControl("", "bob", "x"), 0);
    EXPECT_EQ(alice.remoteDesktopBeControl("", "bob", "x"), 0);
    EXPECT_EQ(alice.remoteDesktopControlReply("", "bob", "x"), 0);
    EXPECT_EQ(alice.remoteDesktopBeControlReply("", "bob", "x"), 0);
    EXPECT_EQ(alice.addFriend("", "bob", "x"), 0);
    EXPECT_EQ(alice.acceptFriend("", "bob", "x"), 0);
    EXPECT_EQ(alice.delFriend("", "bob"), 0);
    EXPECT_EQ(alice.setFriendPropoties("", "bob", "x"), 0);
    EXPECT_EQ(alice.listFriends(1, 20, ""), 0);

    bob.setServerJid("hub@im.test"); // a deployment with its own server JID
    ASSERT_EQ(login(alice, broker, "alice", 5), 1);
    ASSERT_EQ(login(bob, broker, "bob", 5), 1);
    ASSERT_TRUE(waitOnline(aliceApp, broker, "alice@im.test@dev-a")) << broker.log();
    ASSERT_TRUE(waitOnline(bobApp, broker, "bob@im.test@dev-b", 1, "hub@im.test")) << broker.log();

    // Client id user@domain@device, persistent session, keepalive 60 s,
    // the will on the presence topic at QoS 2; then the eleven receive
    // topics, the room-list request and APP_STARTUP, in that order, and
    // nothing else.
    std::vector<std::string> expected{ "connect (p2, c0, k60)", "will m/i/server@im.test/d q2" };
    for (const std::string &e : onlineSequence("alice@im.test"))
        expected.push_back(e);
    EXPECT_EQ(brokerEvents(broker, "alice@im.test@dev-a"), expected);
    expected = { "connect (p2, c0, k60)", "will m/i/hub@im.test/d q2" };
    for (const std::string &e : onlineSequence("bob@im.test", "hub@im.test"))
        expected.push_back(e);
    EXPECT_EQ(brokerEvents(broker, "bob@im.test@dev-b"), expected);

    ASSERT_TRUE(wire.waitForCount("m/i/server@im.test/d", 1));
    ASSERT_TRUE(wire.waitForCount("m/i/hub@im.test/d", 1));
    const auto refresh = wire.on("s/g/c/server@im.test/f");
    ASSERT_EQ(refresh.size(), 1u);
    const Envelope request = openEnvelope(refresh[0].payload);
    expectSystemEnvelope(request, "alice@im.test", "server@im.test");
    EXPECT_EQ(request.body, "empty_message");

    const auto presence = wire.on("m/i/server@im.test/d");
    ASSERT_EQ(presence.size(), 1u);
    const Envelope startup = openEnvelope(presence[0].payload);
    expectSystemEnvelope(startup, "alice@im.test", "server@im.test");
    EXPECT_EQ(startup.body, presenceBody("dev-a", "Alice Desk", "APP_STARTUP", 1));

    const auto bobPresence = wire.on("m/i/hub@im.test/d");
    ASSERT_EQ(bobPresence.size(), 1u);
    expectSystemEnvelope(openEnvelope(bobPresence[0].payload), "bob@im.test", "hub@im.test");
    EXPECT_EQ(wire.on("s/g/c/hub@im.test/f").size(), 1u);

    // Nothing from before the login went out under any client id either.
    ASSERT_TRUE(wire.roundTrip());
    EXPECT_FALSE(wire.waitFor(
        [](const std::vector<WireMessage> &all) {
            return std::any_of(all.begin(), all.end(), [](const WireMessage &m) {
                for (const char *prefix : { "s/h/", "s/r/", "s/f/", "LOCATION/", "m/i/bob", "m/i/server@im.test/m" })
                    if (m.topic.rfind(prefix, 0) == 0)
                        return true;
                return false;
            });
        },
        0ms));
    EXPECT_EQ(aliceApp.state().connected, 1);
    EXPECT_EQ(aliceApp.state().disconnected, 0);
}

TEST(EngineLifecycle, OrderlyLogoutAndLoginOverALiveConnection)
{
    MosquittoBroker broker(brokerOptions());
    ASSERT_TRUE(broker.start()) << broker.log();
    WireObserver wire;
    ASSERT_TRUE(wire.start(broker));
    const std::string id = "alice@im.test@dev-a";

    RecordingApp aliceApp;
    Message_lib alice(&aliceApp, nullptr, "dev-a", "Alice Desk");
    MessagePrivate *engine = alice.engine();
    ASSERT_EQ(login(alice, broker, "alice", 5), 1);
    ASSERT_TRUE(waitOnline(aliceApp, broker, id)) << broker.log();
    std::size_t mark = brokerEvents(broker, id).size();
    ASSERT_EQ(engine->subscribe_message_group({ "r1@conference.im.test", "r2@conference.im.test" }), 1);
    ASSERT_TRUE(eventually([&] { return brokerEvents(broker, id).size() == mark + 4; }));
    EXPECT_EQ(slice(brokerEvents(broker, id), mark, mark + 4),
              (std::vector<std::string>{ "unsubscribe m/i/r1@conference.im.test/#",
                                         "subscribe m/i/r1@conference.im.test/# q2",
                                         "unsubscribe m/i/r2@conference.im.test/#",
                                         "subscribe m/i/r2@conference.im.test/# q2" }));
    EXPECT_EQ(engine->subscribedRoomJids(), (QList<std::string>{ "r1@conference.im.test", "r2@conference.im.test" }));

    // Logout: APP_QUIT (QoS 0) first, then the receive topics, then the
    // rooms, then a clean DISCONNECT, so the broker drops the will.
    mark = brokerEvents(broker, id).size();
    EXPECT_EQ(alice.unRegisterToImServer(), 1);
    EXPECT_FALSE(engine->isLoggedIn());
    EXPECT_TRUE(engine->subscribedRoomJids().isEmpty());
    ASSERT_TRUE(eventually([&] { return countOf(brokerEvents(broker, id), "DISCONNECT") == 1; })) << broker.log();
    std::vector<std::string> expected{ "publish m/i/server@im.test/d q0" };
    for (const std::string &e : onlineSequence("alice@im.test")) {
        if (e.rfind("unsubscribe ", 0) == 0)
            expected.push_back(e);
    }
    expected.push_back("unsubscribe m/i/r1@conference.im.test/#");
    expected.push_back("unsubscribe m/i/r2@conference.im.test/#");
    expected.push_back("DISCONNECT");
    const std::vector<std::string> afterLogout = brokerEvents(broker, id);
    EXPECT_EQ(slice(afterLogout, mark, afterLogout.size()), expected);
    ASSERT_TRUE(wire.waitForEnvelope("m/i/server@im.test/d", "APP_QUIT"));
    const Envelope quit = wire.envelopes("m/i/server@im.test/d", "APP_QUIT")[0];
    EXPECT_EQ(quit.body, presenceBody("dev-a", "Alice Desk", "APP_QUIT", 0));
    EXPECT_EQ(quit.msgType, MediaInfo::MESSAGE_TYPE_SYSTEM);

    // Logged out: a second logout and every sending operation publish nothing.
    EXPECT_EQ(alice.unRegisterToImServer(), 1);
    EXPECT_EQ(alice.sendLocation("bob@im.test", "1", "2"), 0);
    EXPECT_EQ(alice.sendTextMessageTo("", "bob", 5, "x", BODY_TYPE_DEFAULT, false, "", ""), 0);
    alice.startSyncMessage("u-1");
    alice.fetchConversations(MediaInfo::MessageType(1), 0, 20);
    EXPECT_EQ(alice.remoteDesktopControl("", "bob", "x"), 0);
    EXPECT_EQ(alice.addFriend("", "bob", "x"), 0);
    EXPECT_EQ(alice.listFriends(1, 20, ""), 0);
    ASSERT_TRUE(wire.roundTrip());
    EXPECT_EQ(brokerEvents(broker, id).size(), afterLogout.size());

    // Log in again (level 5), then once more over the live connection at
    // level 3: the old connection ends in order before the new one starts,
    // no takeover, no will, and the new level rules what is readable.
    ASSERT_EQ(login(alice, broker, "alice", 5), 1);
    ASSERT_TRUE(waitOnline(aliceApp, broker, id, 2)) << broker.log();
    ASSERT_TRUE(wire.publish("m/i/alice@im.test/n", sealEnvelope("carol@im.test", "alice@im.test", "level 4", 4)));
    ASSERT_TRUE(aliceApp.waitForMessages(1));
    EXPECT_FALSE(aliceApp.state().messages[0].readable);

    mark = brokerEvents(broker, id).size();
    ASSERT_EQ(login(alice, broker, "alice", 3), 1);
    ASSERT_TRUE(waitOnline(aliceApp, broker, id, 3)) << broker.log();
    const std::vector<std::string> relogin = brokerEvents(broker, id);
    const auto next = std::find(relogin.begin() + long(mark), relogin.end(), "connect (p2, c0, k60)");
    ASSERT_NE(next, relogin.end());
    const std::vector<std::string> ending(relogin.begin() + long(mark), next);
    ASSERT_FALSE(ending.empty());
    EXPECT_EQ(ending.front(), "publish m/i/server@im.test/d q0");
    EXPECT_EQ(ending.back(), "DISCONNECT");
    EXPECT_EQ(countOf(ending, "unsubscribe m/i/alice@im.test/#"), 1u);
    EXPECT_EQ(countOf(relogin, "taken over"), 0u);

    ASSERT_TRUE(wire.publish("m/i/alice@im.test/n", sealEnvelope("carol@im.test", "alice@im.test", "level 4", 4)));
    ASSERT_TRUE(aliceApp.waitForMessages(2));
    EXPECT_TRUE(aliceApp.state().messages[1].readable);
    EXPECT_EQ(aliceApp.state().messages[1].body, "level 4");
    EXPECT_EQ(aliceApp.state().connected, 3);
    EXPECT_EQ(aliceApp.state().disconnected, 0);

    ASSERT_TRUE(wire.roundTrip());
    EXPECT_TRUE(wire.envelopes("m/i/server@im.test/d", "NETWORK_DISCONNECTED").empty());
}

// Without an ImEventReciever everything works, events are dropped: the
// receiving paths run directly and over the broker, then logout.
TEST(EngineLifecycle, WithoutCallbacksEverythingStillWorks)
{
    MosquittoBroker broker(brokerOptions());
    ASSERT_TRUE(broker.start()) << broker.log();
    WireObserver wire;
    ASSERT_TRUE(wire.start(broker));

    Message_lib carol(nullptr, nullptr, "dev-c", "Carol Desk");
    MessagePrivate *engine = carol.engine();
    // Every receiving path, before any login.
    struct Raw {
        std::string topic, payload;
    };
    std::vector<Raw> deliveries{
        { "m/i/carol@127.0.0.1/n", sealEnvelope("a@im.test", "carol@127.0.0.1", "chat", 3) },
        { "m/i/carol@127.0.0.1/d", sealEnvelope("a@im.test", "carol@127.0.0.1", "{}", 9999) },
        { "m/i/carol@127.0.0.1/c", sealEnvelope("a@im.test", "carol@127.0.0.1", R"({"uuid":"u","status":2})", 9999) },
        { "m/ntc/", sealEnvelope("a@im.test", "carol@127.0.0.1", "notice", 9999, BODY_TYPE_NOTICE) },
        { "m/ntc/", "garbage" },
    };
    // Friend, history and remote-desktop events, each with its handler.
    for (const char *chain : { "s/f/c/%1/a", "s/f/i/%1/a", "s/f/c/%1/d", "s/f/i/%1/l", "s/h/i/%1/l", "s/h/i/%1/c",
                               "s/h/i/%1/vd", "s/r/c/%1/c", "s/r/c/%1/b", "s/r/i/%1/c", "s/r/i/%1/b" })
        deliveries.push_back({ QString::fromLatin1(chain).arg("carol@127.0.0.1").toStdString(),
                               sealEnvelope("a@im.test", "carol@127.0.0.1", "x", 9999, 0, 16) });
    for (const Raw &r : deliveries) {
        std::vector<char> topic(r.topic.begin(), r.topic.end());
        topic.push_back('\0');
        std::string payload = r.payload;
        engine->messgeRecievedMore(1, topic.data(), payload.data(), int(payload.size()), 2, false);
    }
    engine->connectStatus(false);

    // Empty domain: the host stands in, for the JID and the server JID.
    ASSERT_EQ(login(carol, broker, "carol", 5, ""), 1);
    EXPECT_EQ(engine->userJid(), "carol@127.0.0.1");
    const std::string id = "carol@127.0.0.1@dev-c";
    ASSERT_TRUE(eventually([&] {
        return countOf(brokerEvents(broker, id), "publish m/i/server@127.0.0.1/d q2") == 1;
    })) << broker.log();
    for (const Raw &r : deliveries)
        ASSERT_TRUE(wire.publish(r.topic, r.payload));
    EXPECT_EQ(carol.sendTextMessageTo("", "dave", 9999, "from carol", BODY_TYPE_DEFAULT, false, "", ""), 1);
    EXPECT_EQ(carol.sendLocation("dave@127.0.0.1", "1", "2"), 1);
    EXPECT_EQ(carol.modifyMessageStatus("u", MSG_STATUS_NONE), 1);
    ASSERT_TRUE(wire.waitForEnvelope("m/i/dave@127.0.0.1/n", "from carol"));
    ASSERT_TRUE(wire.waitForCount("m/i/server@127.0.0.1/m", 1));
    EXPECT_EQ(carol.unRegisterToImServer(), 1);
    EXPECT_TRUE(eventually([&] { return countOf(brokerEvents(broker, id), "DISCONNECT") == 1; }));
}

// Logging in again while messages keep arriving: the old connection's
// delivery thread must be gone before the new level is stored (a data race
// under ThreadSanitizer otherwise), and the last level is the one in force.
TEST(EngineLifecycle, LoginAgainWhileMessagesArrive)
{
    MosquittoBroker broker(brokerOptions());
    ASSERT_TRUE(broker.start()) << broker.log();
    WireObserver wire;
    ASSERT_TRUE(wire.start(broker));
    RecordingApp app;
    Message_lib alice(&app, nullptr, "dev-a", "Alice Desk");
    ASSERT_EQ(login(alice, broker, "alice", 5), 1);
    ASSERT_TRUE(waitOnline(app, broker, "alice@im.test@dev-a")) << broker.log();

    std::atomic<bool> stop{ false };
    const std::string atFour = sealEnvelope("carol@im.test", "alice@im.test", "level 4", 4);
    std::thread flood([&] {
        while (!stop) {
            wire.publish("m/i/alice@im.test/n", atFour);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    });
    for (int round = 2; round <= 6; ++round) {
        const std::size_t seen = app.state().messages.size();
        login(alice, broker, "alice", round % 2 == 0 ? 3 : 5);
        EXPECT_TRUE(app.waitFor([&](const AppState &s) { return s.connected == round && s.messages.size() > seen; }));
    }
    stop = true;
    flood.join();
    ASSERT_TRUE(wire.publish("m/i/alice@im.test/n", sealEnvelope("carol@im.test", "alice@im.test", "last", 4)));
    ASSERT_TRUE(app.waitFor([](const AppState &s) { return !s.messages.empty() && s.messages.back().body == "last"; }));
    EXPECT_TRUE(app.state().messages.back().readable); // level 3 since the last login
}
