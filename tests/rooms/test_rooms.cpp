// Room commands as the server receives them, and room events from the wire
// playing the server: callbacks, subscriptions, kicks, unreadable bodies,
// and a logout that delivers every notification still waiting.

#include "enginetestkit.h"

#include <QRegularExpression>

#include <algorithm>
#include <thread>

using namespace kit;

namespace {

std::string member(const std::string &jid, const std::string &name)
{
    return R"({")" + jid + R"(":{"jid":")" + jid + R"(","join_time":"","name":")" + name + R"("}})";
}

std::string room(const std::string &jid, const std::string &members, const std::string &name,
    const std::string &operatorBy = "", int type = 0)
{
    return R"(s/g/c/server@im.test/|2|alice@im.test|server@im.test|9999|0|16|||{"creater":"","jid":")" + jid +
           R"(","join_time":"","members":[)" + members + R"(],"name":")" + name + R"(","operatorBy":")" + operatorBy +
           R"(","status":0,"type":)" + std::to_string(type) + "}";
}

std::string topic(std::string line, const char *sub)
{
    return line.insert(line.find('|'), sub);
}

std::string roomText(const char *jid, const std::string &operatorBy = "")
{
    Room r;
    r.jid = jid;
    r.name = "T";
    r.operatorBy = operatorBy;
    return r.toString();
}

} // namespace

TEST(Rooms, CommandsOnTheWire)
{
    const std::string alice = member("alice@im.test", "alice"), bob = member("bob@im.test", "bob"),
                      carol = member("carol@im.test", "carol");
    const std::string request = "s/g/c/server@im.test/|2|alice@im.test|server@im.test|9999|0|16|||";
    checkRows({
        { "create", KIT_CALL(createMucRoom("r1", "Team", "bob,carol", ROOM_TYPE(3))), 1, 0,
            topic(room("r1@im.test", alice + "," + bob + "," + carol, "Team", "", 3), "c") },
        { "invite, bare room id", KIT_CALL(inviteToRoom("r1", "bob,,x@y")), 1, 1,
            topic(room("r1@im.test", member("@im.test", "") + "," + bob + "," + member("x@y@im.test", "x@y"), "r1"),
                "i") },
        { "invite, full room id", KIT_CALL(inviteToRoom("r@x", "bob@x,carol")), 1, 1,
            topic(room("r@x@im.test", member("bob@x", "bob@x") + "," + member("carol", "carol"), "r@x"), "i") },
        { "kick", KIT_CALL(kickFromRoom("r1", "bob,carol")), 1, 0,
            topic(
                room("r1@im.test", bob + "," + carol, "r1", R"({\"memberID\":\"bob,carol\",\"operatorBy\":\"alice\"})"),
                "k") },
        { "destroy", KIT_CALL(destoryRoom("r1")), 1, 0, topic(room("r1@im.test", "", "r1"), "r") },
        { "rename", KIT_CALL(setRoomHumanName("r1", "É \"A\"")), 0, 0,
            topic(room("r1@im.test", "", R"(É \"A\")"), "s") },
        { "creator", KIT_CALL(setRoomCreater("r1", "bob")), 1, 0,
            topic(request, "g") + R"({"member_id":"bob@im.test","room_id":"r1@im.test"})" },
        { "type", KIT_CALL(modifyRoomType("r1", ROOM_TYPE(3))), 1, 0,
            topic(request, "m") + R"({"room_type":"3","room_id":"r1@im.test"})" },
    });
}

TEST(Rooms, EventsSubscriptionsAndNotifications)
{
    Net &n = net();
    ASSERT_TRUE(n.up);
    App app;
    std::atomic<bool> slow{ false };
    app.onRoom = [&] { std::this_thread::sleep_for(std::chrono::milliseconds(slow ? 2 : 0)); };
    Message_lib rose(&app, &app, "dev-r", "Rose Desk");
    ASSERT_TRUE(login(rose, n.broker, "rose", 5));
    ASSERT_TRUE(online(app, n.wire, "rose@im.test"));
    const auto fence = [&] { return delivered(app, "rose@im.test"); };
    const auto send = [&](GroupSubCmd cmd, const std::string &body) {
        const GroupEvent e = makeGroupEvent("rose@im.test", cmd, QString::fromStdString(body), "server@im.test");
        n.wire.publish(e.topic, e.payload);
    };
    const std::string list = R"({"jid":"rose@im.test","rooms":[{"k3@d":{}},{"k2@d":{},"k1@d":{}},{"k4@d":{}}]})";
    send(GroupSub_Refresh, list);
    send(GroupSub_Refresh, "not json");
    Lines expected{ "roomList|" + list, "roomList|not json" };
    // Each event and the notification it gives (0: none); a new room creator refreshes.
    const std::vector<std::pair<GroupSubCmd, GroupSubCmd>> events{ { GroupSub_Create, GroupSub_Create },
        { GroupSub_Release, GroupSub_Release }, { GroupSub_Invite, GroupSub_Invite },
        { GroupSub_SetGroupName, GroupSub_SetGroupName }, { GroupSub_SetRoomCreater, GroupSub_Refresh },
        { GroupSub_Modify_Type, GroupSub_Modify_Type }, { GroupSub_Exit, GroupSubCmd(0) },
        { GroupSub_Query, GroupSubCmd(0) }, { GroupSub_Join, GroupSubCmd(0) } };
    for (std::size_t i = 0; i < events.size(); ++i) {
        const std::string jid = "r" + std::to_string(i + 1) + "@d";
        send(events[i].first, roomText(jid.c_str()));
        if (events[i].second != 0)
            expected.push_back(fields("room", events[i].second, roomText(jid.c_str())));
    }
    // Kicked by carol, kicked by a byte search ("rose" in "mrose"), rose
    // kicking bob, rose leaving by her own kick.
    for (const auto &kick : std::vector<std::vector<const char *>>{ { "k1@d", "bob,rose", "carol" },
             { "k2@d", "bob,mrose", "carol" }, { "k3@d", "bob", "rose" }, { "k4@d", "rose", "rose" } }) {
        const std::string text =
            roomText(kick[0], R"({"memberID":")" + std::string(kick[1]) + R"(","operatorBy":")" + kick[2] + R"("})");
        send(GroupSub_Kick, text);
        expected.push_back(fields("room", GroupSub_Kick, text));
    }
    send(GroupSub_Create, "not json");
    ASSERT_TRUE(fence());
    EXPECT_EQ(rose.engine()->subscribedRoomJids(),
        (QList<std::string>{ "k1@d", "k2@d", "k3@d", "k4@d", "r1@d", "r2@d", "r3@d" }));

    // Room messages reach rose once the broker has her subscription changes
    // (her request sent after them has arrived).
    EXPECT_EQ(rose.engine()->refreshGroupList(), 1);
    n.wire.await(n.wire.log.lines().size(), 1);
    for (const char *jid : { "k1@d", "k2@d", "k3@d", "k4@d", "r1@d", "r2@d", "r3@d", "r4@d", "r7@d" })
        n.wire.publish(std::string("m/i/") + jid + "/n", seal("bob@im.test", jid, "hi", 9999));
    ASSERT_TRUE(fence());
    EXPECT_EQ(app.log.starting("message|bob@im.test|"),
        (Lines{ "message|bob@im.test|k3@d|hi|0|1|k|st|1", "message|bob@im.test|r1@d|hi|0|1|k|st|1",
            "message|bob@im.test|r2@d|hi|0|1|k|st|1", "message|bob@im.test|r3@d|hi|0|1|k|st|1" }));
    // Creation, release and a kick by someone else post a message from the room to itself.
    Lines notes;
    for (const std::string &l : app.log.starting("message|"))
        if (l.compare(0, 20, "message|bob@im.test|") != 0)
            notes.push_back(
                QString::fromStdString(l)
                    .replace(QRegularExpression(
                                 R"(\|[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}\|\d{4}(-\d\d){2} \d\d(:\d\d){2}\|)"),
                        "|id|time|")
                    .toStdString());
    EXPECT_EQ(notes,
        (Lines{ "message|r1@d|r1@d||0|4|id|time|1", "message|r2@d|r2@d||0|4|id|time|1",
            "message|k1@d|k1@d||9|4|id|time|1", "message|k2@d|k2@d||9|4|id|time|1", "message||||0|4|id|time|1" }));

    // Logout delivers every notification still waiting.
    slow = true;
    for (int i = 0; i < 200; ++i) { // distinct bytes: identical ones would be taken for redeliveries
        send(GroupSub_SetGroupName, roomText(("burst" + std::to_string(i) + "@d").c_str()));
        expected.push_back(
            fields("room", GroupSub_SetGroupName, roomText(("burst" + std::to_string(i) + "@d").c_str())));
    }
    ASSERT_TRUE(fence());
    rose.unRegisterToImServer();
    Lines heard;
    for (const std::string &l : app.log.lines())
        if (l.compare(0, 5, "room|") == 0 || l.compare(0, 9, "roomList|") == 0)
            heard.push_back(l);
    std::sort(heard.begin(), heard.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(heard, expected);
}
