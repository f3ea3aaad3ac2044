// The engine over one broker: each command's result and wire bytes, each
// incoming message's callback, the connection's lifecycle.

#include "enginetestkit.h"

using namespace kit;

namespace {

std::string sys(const char *topic, const char *to = "server@im.test")
{
    return std::string(topic) + "|2|alice@im.test|" + to + "|9999|0|16|||";
}

std::string presence(const char *device, const char *name, const char *text, int type)
{
    return R"({"device_id":")" + std::string(device) + R"(","device_name":")" + name + R"(","text":")" + text +
        R"(","type":)" + std::to_string(type) + "}";
}

} // namespace

TEST(Engine, CommandsOnTheWire)
{
    const std::string bob = "|2|alice@im.test|bob@im.test|";
    checkRows({
        { "chat to a bare id",
          [](Message_lib &l) {
              return l.sendTextMessageTo("x@y", "bob", 3, "hi", BODY_TYPE_DEFAULT, false, "k", "st");
          },
          1, 0, "m/i/bob@im.test/n" + bob + "3|0|1|k|st|hi" },
        { "chat to a room",
          [](Message_lib &l) {
              return l.sendTextMessageTo("", "r@y", 7, "all", MESSAGE_BODY_TYPE(3), true, "k", "st");
          },
          1, 0, "m/i/r@y/n|2|alice@im.test|r@y|7|3|4|k|st|all" },
        { "notice", KIT_CALL(sendTextMessageTo("", "bob", 3, "note", BODY_TYPE_NOTICE, false, "k", "st")), 1, 0,
          "m/ntc/" + bob + "9999|7|1|k|st|note" },
        { "location", KIT_CALL(sendLocation("bob@im.test", "31.23", "北纬")), 1, 0,
          "LOCATION/bob@im.test|0|31.23:北纬" },
        { "status", KIT_CALL(modifyMessageStatus("msg-1", MSG_STATUS(3))), 1, 1,
          sys("m/i/server@im.test/m") + R"({"status":3,"uuid":"msg-1"})" },
        { "conversations", KIT_VOID(fetchConversations(MediaInfo::MessageType(1), 0, 20)), kNone, kNone,
          sys("s/h/c/server@im.test/c") + R"({"message_type":1,"my_sec_level":5,"page":0,"pagesize":20})" },
        { "detail", KIT_VOID(getMsgByConvid("c1", 2, 10)), kNone, kNone,
          sys("s/h/c/server@im.test/vd") + R"({"conv_id":"c1","my_sec_level":5,"page":2,"pagesize":10})" },
        { "sync", KIT_VOID(startSyncMessage("u-1")), kNone, kNone,
          sys("s/h/c/server@im.test/l") + R"({"msg_uuid":"u-1","my_sec_level":5})" },
        { "pull", KIT_VOID(startPullMessage(2, 30, 15, "u-2")), kNone, kNone,
          sys("s/h/c/server@im.test/l") +
              R"({"count":15,"msg_uuid":"u-2","my_sec_level":5,"pull_type":2,"start":30})" },
        { "control", KIT_CALL(remoteDesktopControl("x@y", "bob", "may I?")), 1, 0,
          sys("s/r/c/bob@im.test/c", "bob@im.test") + "may I?" },
        { "be controlled", KIT_CALL(remoteDesktopBeControl("", "bob@im.test", "vnc — 请")), 1, 0,
          sys("s/r/c/bob@im.test/b", "bob@im.test") + "vnc — 请" },
        { "control reply", KIT_CALL(remoteDesktopControlReply("", "bob", "")), 1, 0,
          sys("s/r/i/bob@im.test/c", "bob@im.test") },
        { "be controlled reply", KIT_CALL(remoteDesktopBeControlReply("", "bob", "ok")), 1, 0,
          sys("s/r/i/bob@im.test/b", "bob@im.test") + "ok" },
    });
    // Between façades: bob (level 5) hears alice's chat at level 3, and her request.
    const std::string chat = fields("message|alice@im.test|bob@im.test", kUnreadable, "0|1|k|st|0");
    EXPECT_TRUE(net().bobApp.log.waitFor([&](const Lines &l) {
        return countWith(l, chat) + countWith(l, "rdControlRequest|alice@im.test|bob@im.test|may I?") == 2;
    }));
}

// Alice's level is 5: below it a body is replaced, a notice never is.
TEST(Engine, IncomingMessages)
{
    ASSERT_TRUE(net().up);
    const std::string carol = "carol@im.test|alice@im.test|", startup = R"({"text":"APP_STARTUP","type":1})";
    checkIncoming(net().aliceApp, "alice@im.test",
                  { { "m/i/%/n", "at 4", 4, { "message|" + carol + kUnreadable + "|0|1|k|st|0" } },
                    { "m/i/%/n", "at 5", 5, { "message|" + carol + "at 5|0|1|k|st|1" } },
                    { "m/i/%/n", "garbage", kNone, {} },
                    { "m/ntc/", "notice", 3, { "message|" + carol + "notice|0|1|k|st|1" } },
                    { "m/ntc/", "garbage", kNone, { "message||||0|0|||1" } },
                    { "m/i/%/d", startup, 1, { "presence|carol@im.test|" + startup } },
                    { "m/i/%/c", "{}", 1, {} },
                    { "m/i/%/c", R"({"modifier":"c@d","status":4,"uuid":"u-1"})", 1, { "status|c@d|u-1|4" } },
                    { "m/i/%/m", R"({"uuid":"u-1"})", 1, {} },
                    { "s/h/i/%/l", "", 1, { "history|" } },
                    { "s/h/i/%/c", "[1]", 1, { "conversations|[1]" } },
                    { "s/h/i/%/vd", "详情 {", 1, { "detail|详情 {" } },
                    { "s/r/c/%/c", "a", 1, { "rdControlRequest|" + carol + "a" } },
                    { "s/r/c/%/b", "b", 1, { "rdBeControlRequest|" + carol + "b" } },
                    { "s/r/i/%/c", "c", 1, { "rdControlResponse|" + carol + "c" } },
                    { "s/r/i/%/b", "", 1, { "rdBeControlResponse|" + carol } } });
}

TEST(Engine, LifecycleRoomsLogoutAndLoginAgain)
{
    Net &n = net();
    ASSERT_TRUE(n.up);
    const std::string id = "dave@im.test@dev-d";
    App app;
    {
        Message_lib dave(&app, &app, "dev-d", "Dave Desk");
        MessagePrivate *engine = dave.engine();
        EXPECT_EQ(dave.unRegisterToImServer(), 1);
        EXPECT_EQ(engine->refreshGroupList(), 0);
        std::size_t mark = n.wire.log.lines().size();
        ASSERT_TRUE(login(dave, n.broker, "dave", 5));
        ASSERT_TRUE(online(app, n.wire, "dave@im.test"));
        // Each receive topic unsubscribed and subscribed, then the room list
        // request and APP_STARTUP.
        Lines topics;
        for (const char *family :
             { "m/i/", "s/g/i/", "s/g/c/", "s/c/c/", "s/c/i/", "s/f/c/", "s/f/i/", "s/r/c/", "s/r/i/", "s/h/i/" })
            for (const char *sign : { "-", "+" })
                topics.push_back(sign + std::string(family) + "dave@im.test/#");
        topics.insert(topics.end(), { "-m/ntc/#", "+m/ntc/#" });
        EXPECT_EQ(subscriptions(n.broker, id), topics);
        const std::string head = "|2|dave@im.test|server@im.test|9999|0|16|||";
        ASSERT_TRUE(n.wire.fence());
        EXPECT_EQ(n.wire.linesOf(mark, "dave"),
                  (Lines{ "s/g/c/server@im.test/f" + head + "empty_message",
                          "m/i/server@im.test/d" + head + presence("dev-d", "Dave Desk", "APP_STARTUP", 1) }));

        EXPECT_EQ(engine->subscribe_message_group({ "r1@conference.im.test" }), 1);
        mark = n.wire.log.lines().size();
        EXPECT_EQ(engine->refreshGroupList(), 1);
        EXPECT_EQ(countWith(n.wire.await(mark, 1), "empty_message"), 1u);
        topics.insert(topics.end(), { "-m/i/r1@conference.im.test/#", "+m/i/r1@conference.im.test/#" });
        EXPECT_TRUE(eventually([&] { return subscriptions(n.broker, id) == topics; }))
            << fields(subscriptions(n.broker, id).size());
        EXPECT_EQ(engine->subscribedRoomJids(), QList<std::string>{ "r1@conference.im.test" });

        // Logout: APP_QUIT at QoS 0, every topic and room unsubscribed; what
        // is sent meanwhile is not kept for dave.
        mark = n.wire.log.lines().size();
        EXPECT_EQ(dave.unRegisterToImServer(), 1);
        EXPECT_FALSE(engine->isLoggedIn());
        EXPECT_TRUE(engine->subscribedRoomJids().isEmpty());
        EXPECT_EQ(n.wire.await(mark, 1),
                  Lines{ "m/i/server@im.test/d|0|dave@im.test|server@im.test|9999|0|16|||" +
                         presence("dev-d", "Dave Desk", "APP_QUIT", 0) });
        EXPECT_TRUE(eventually([&] { return subscriptions(n.broker, id).size() == topics.size() + 12; }));
        ASSERT_TRUE(n.wire.publish("m/i/dave@im.test/n", seal("c@im.test", "dave@im.test", "while out", 5)));
        ASSERT_TRUE(n.wire.publish("m/i/r1@conference.im.test/n", seal("c@im.test", "r1", "room while out", 5)));
        ASSERT_TRUE(n.wire.fence());

        // Again, with another server JID; then over the live connection at
        // level 3, which ends the old one in order and rules what is readable.
        dave.setServerJid("hub@im.test");
        ASSERT_TRUE(login(dave, n.broker, "dave", 5));
        ASSERT_TRUE(online(app, n.wire, "dave@im.test", 2));
        ASSERT_TRUE(login(dave, n.broker, "dave", 3));
        ASSERT_TRUE(online(app, n.wire, "dave@im.test", 3));
        ASSERT_TRUE(n.wire.publish("m/i/dave@im.test/n", seal("c@im.test", "dave@im.test", "at 4", 4)));
        EXPECT_TRUE(app.log.waitForPrefix("message|"));
        EXPECT_EQ(app.log.starting("message|"), Lines{ "message|c@im.test|dave@im.test|at 4|0|1|k|st|1" });
        EXPECT_EQ(countWith(n.wire.after(mark), "m/i/hub@im.test/d|2|dave@im.test|hub@im.test|"), 2u);
    }
    // Destroyed logged in: it logs out.
    ASSERT_TRUE(n.wire.fence());
    const Lines all = n.wire.log.lines();
    EXPECT_EQ(countWith(all, "|0|dave@im.test|hub@im.test|"), 2u);
    EXPECT_EQ(countWith(all, "NETWORK_DISCONNECTED"), 0u);
    EXPECT_EQ(app.log.starting("disconnected"), Lines{});
}
