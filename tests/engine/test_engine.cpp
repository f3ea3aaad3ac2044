// The engine over one broker: each command's result and wire bytes, each
// incoming message's callback, the connection's lifecycle.

#include "enginetestkit.h"
#include "inputlimits.h"
#include "processusage.h"
#include "vantrelcrypt.h"

#include <QtEndian>

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

// An enciphered envelope whose body is `size` bytes of "x", compressed, its
// size claimed as `claim`: a plain block holding the compressed form, then
// flagged compressed.
std::string bomb(int size, quint32 claim)
{
    QByteArray packed = qCompress("{\"b\":\"" + QByteArray(size, 'x') + "\"}", 9);
    qToBigEndian(claim, packed.data());
    VantrelCrypt writer(keyList[0]);
    writer.compressionPolicy = VantrelCrypt::CompressNever;
    writer.integrityCheck = VantrelCrypt::IntegrityNone;
    QByteArray cypher = writer.encryptToByteArray(packed);
    cypher[1] = 0x01;
    return "A" + cypher.toBase64().toStdString();
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
        // Refused before anything is published: the wire's line is the next row's.
        { "addressees that fail the JID check",
            [](Message_lib &l) {
                return l.sendTextMessageTo("", "#", 3, "x", BODY_TYPE_DEFAULT, false, "", "") +
                       l.sendTextMessageTo("", "a/b", 3, "x", BODY_TYPE_NOTICE, false, "", "") +
                       l.sendLocation("+", "1", "2") + l.createMucRoom("r\x01", "n", "", ROOM_TYPE(3)) +
                       l.sendLocation("bob@im.test", "0", "0");
            },
            1, 0, "LOCATION/bob@im.test|0|0:0" },
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
            { "m/i/%/n", "at 5", 5, { "message|" + carol + "at 5|0|1|k|st|1" } }, { "m/i/%/n", "garbage", kNone, {} },
            { "m/ntc/", "notice", 3, { "message|" + carol + "notice|0|1|k|st|1" } },
            { "m/ntc/", "garbage", kNone, { "message||||0|0|||1" } },
            { "m/i/%/d", startup, 1, { "presence|carol@im.test|" + startup } }, { "m/i/%/c", "{}", 1, {} },
            { "m/i/%/c", R"({"modifier":"c@d","status":4,"uuid":"u-1"})", 1, { "status|c@d|u-1|4" } },
            { "m/i/%/m", R"({"uuid":"u-1"})", 1, {} }, { "s/h/i/%/l", "", 1, { "history|" } },
            { "s/h/i/%/c", "[1]", 1, { "conversations|[1]" } }, { "s/h/i/%/vd", "详情 {", 1, { "detail|详情 {" } },
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
        // Each receive topic subscribed (never unsubscribed first: no gap),
        // then the room list request and APP_STARTUP.
        Lines topics;
        for (const char *family :
            { "m/i/", "s/g/i/", "s/g/c/", "s/c/c/", "s/c/i/", "s/f/c/", "s/f/i/", "s/r/c/", "s/r/i/", "s/h/i/" })
            topics.push_back("+" + std::string(family) + "dave@im.test/#");
        topics.push_back("+m/ntc/#");
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
        topics.push_back("+m/i/r1@conference.im.test/#");
        EXPECT_TRUE(eventually([&] { return subscriptions(n.broker, id) == topics; }))
            << fields(subscriptions(n.broker, id).size());
        EXPECT_EQ(engine->subscribedRoomJids(), QList<std::string>{ "r1@conference.im.test" });

        // Logout in the middle of a burst: the server, receiving at QoS 1 as
        // the library does, hears APP_QUIT (QoS 0) after every chat sent
        // before it; every topic and room unsubscribed; what is sent
        // meanwhile is not kept for dave.
        App serverApp;
        Message_lib server(&serverApp, nullptr, "dev-s", "Server");
        ASSERT_TRUE(login(server, n.broker, "server", 5) && online(serverApp, n.wire, "server@im.test"));
        const std::size_t heard = serverApp.log.lines().size();
        for (int i = 0; i < 300; ++i)
            ASSERT_EQ(dave.sendTextMessageTo("", "server", 5, "burst", BODY_TYPE_DEFAULT, false, "k", "st"), 1);
        EXPECT_EQ(dave.unRegisterToImServer(), 1);
        EXPECT_FALSE(engine->isLoggedIn());
        EXPECT_TRUE(engine->subscribedRoomJids().isEmpty());
        EXPECT_TRUE(serverApp.log.waitFor([](const Lines &l) { return countWith(l, "APP_QUIT") == 1; }));
        const Lines all = serverApp.log.lines();
        Lines out; // dave's: the server's own startup may still arrive meanwhile
        std::copy_if(all.begin() + long(heard), all.end(), std::back_inserter(out),
            [](const std::string &l) { return l.find("|dave@im.test|") != std::string::npos; });
        EXPECT_EQ(fields(out.size(), countWith(out, "|burst|"), out.empty() ? "" : out.back()),
            fields(301, 300, "presence|dave@im.test|" + presence("dev-d", "Dave Desk", "APP_QUIT", 0)));
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
        // With the delivery level capped at 1 (a broker without QoS 2).
        dave.setMaxQos(1);
        ASSERT_TRUE(login(dave, n.broker, "dave", 3));
        EXPECT_TRUE(eventually(
            [&] { return countWith(n.wire.after(mark), "m/i/hub@im.test/d|1|dave@im.test|hub@im.test|") == 1; }));
        EXPECT_EQ(dave.sendTextMessageTo("", "bob", 3, "capped", BODY_TYPE_DEFAULT, false, "k", "st"), 1);
        EXPECT_TRUE(eventually([&] { return countWith(n.wire.after(mark), "m/i/bob@im.test/n|1|dave") == 1; }));
    }
    // Destroyed logged in: it logs out.
    ASSERT_TRUE(n.wire.fence());
    const Lines all = n.wire.log.lines();
    EXPECT_EQ(countWith(all, "|0|dave@im.test|hub@im.test|"), 3u);
    EXPECT_EQ(countWith(all, "NETWORK_DISCONNECTED"), 0u);
    EXPECT_EQ(app.log.starting("disconnected"), Lines{});
}

// Each hostile delivery is dropped, counted and logged once; memory stays
// within a few times the limits (a 256 MB bomb cost a gigabyte when nothing
// bounded inflation); a chat sent right after each still arrives; a room
// JID that fails the check is never subscribed; a login with such an id is
// refused before anything is sent.
TEST(Engine, HostileInputIsBounded)
{
    Net &n = net();
    ASSERT_TRUE(n.up);
    App app;
    Message_lib eve(&app, &app, "dev-e", "Eve Desk");
    for (const QString &id : { Q(""), Q("e+"), Q("e#"), Q("e/f"), Q("e@f"), Q("e\x7f"), Q("e\xc2\x85"),
             Q("e") + QChar(0xD800), Q(300, 'e') }) {
        EXPECT_EQ(eve.registerToImServer(n.broker.host(), n.broker.port(), id, "", 5, "im.test", ""), 0);
        EXPECT_TRUE(eve.lastConnectionErrorText().startsWith("login refused: the user id ")) << id.toStdString();
    }
    EXPECT_EQ(eve.registerToImServer(n.broker.host(), n.broker.port(), "eve", "", 5, "im+", ""), 0);
    ASSERT_TRUE(login(eve, n.broker, "eve", 5));
    ASSERT_TRUE(online(app, n.wire, "eve@im.test"));

    const std::string me = "m/i/eve@im.test/n";
    const auto group = [](GroupSubCmd cmd, const std::string &body) {
        return makeGroupEvent("eve@im.test", cmd, QString::fromStdString(body), "server@im.test");
    };
    std::string manyRooms = R"({"jid":"eve@im.test","rooms":[{"ok@d":{}})";
    for (int i = 0; i < InputLimits::ROOMS + 5; ++i)
        manyRooms += R"(,{"n)" + std::to_string(i) + R"(@d":{}})";
    const GroupEvent badList =
        group(GroupSub_Refresh, R"({"jid":"eve@im.test","rooms":[{"+":{},"ok@d":{}},{"a/b":{}},{"c\u0001@d":{}}]})");
    const GroupEvent plus = group(GroupSub_Create, R"({"jid":"+","name":"x"})");
    const GroupEvent full = group(GroupSub_Refresh, manyRooms + "]}");
    const struct {
        const char *what;
        std::string topic, payload;
        DroppedInputs dropped; // oversized, invalid room JIDs, rooms over the bound
    } rows[] = {
        { "bomb of 256 MB, claimed", me, bomb(256 << 20, 256u << 20), { 1, 0, 0 } },
        { "bomb of 256 MB claiming 10 bytes", me, bomb(256 << 20, 10), { 1, 0, 0 } },
        { "bomb of 5 MB claiming 2 GB", me, bomb(5 << 20, 0x7FFFFFFF), { 1, 0, 0 } },
        { "plain envelope of 5 MB", me, "a{\"b\":\"" + std::string(5 << 20, 'x') + "\"}", { 1, 0, 0 } },
        { "payload of 7 MB", me, "A" + std::string(7 << 20, 'Q'), { 1, 0, 0 } },
        { "topic of 2 KB", me + std::string(2048, 't'), seal("carol@im.test", "eve@im.test", "long", 5), { 1, 0, 0 } },
        { "room created as '+'", plus.topic, plus.payload, { 0, 1, 0 } },
        { "room list with three bad rooms", badList.topic, badList.payload, { 0, 3, 0 } },
        { "room list past the bound", full.topic, full.payload, { 0, 0, 6 } },
    };
    ProcessUsage::resetPeak();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const DroppedInputs before = eve.droppedInputs();
        const std::size_t mark = app.log.lines().size();
        ASSERT_TRUE(n.wire.publish(row.topic, row.payload));
        const std::string after = std::string("after ") + row.what;
        ASSERT_TRUE(n.wire.publish(me, seal("carol@im.test", "eve@im.test", after.c_str(), 5)));
        ASSERT_TRUE(app.log.waitFor([&](const Lines &l) { return countWith(l, "|" + after + "|") == 1; }));
        const DroppedInputs now = eve.droppedInputs();
        EXPECT_EQ(fields(now.oversized - before.oversized, now.invalidRoomJids - before.invalidRoomJids,
                      now.roomsOverLimit - before.roomsOverLimit),
            fields(row.dropped.oversized, row.dropped.invalidRoomJids, row.dropped.roomsOverLimit));
        const Lines heard = app.log.lines();
        EXPECT_EQ(countWith(Lines(heard.begin() + long(mark), heard.end()), "message|"), 1u);
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) // they hold freed memory back
    EXPECT_LT(ProcessUsage::peakResident(), 1024 * 1024) << "KiB";
#else
    EXPECT_LT(ProcessUsage::peakResident(), 160 * 1024) << "KiB";
#endif
    const QList<std::string> rooms = eve.engine()->subscribedRoomJids();
    EXPECT_EQ(fields(rooms.size(), rooms.contains("ok@d"), rooms.contains("+"), rooms.contains("a/b")),
        fields(InputLimits::ROOMS, true, false, false));
    EXPECT_TRUE(app.log.waitForPrefix(R"(roomList|{"jid":"eve@im.test","rooms":[{"ok@d":{}}]})"));
    EXPECT_EQ(n.broker.log().find("m/i/+/"), std::string::npos) << "a wildcard was subscribed";
}
