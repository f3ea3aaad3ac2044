// Room events from a peer playing the server: the application's callbacks,
// the room subscriptions as the broker applies them, unreadable bodies, and
// shutdown while notifications are still running.

#include "groupevent.h"
#include "roomsession.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

using namespace kit;

namespace {

using RoomEvents = RoomSession;

// A room as the server describes it, in the form Room::toString writes.
std::string roomText(const char *jid, const QString &operatorBy = QString())
{
    Room room;
    room.jid = jid;
    room.name = "Team ✓";
    room.creater = "bob@d";
    room.type = ROOM_TYPE(3);
    room.status = 2;
    room.operatorBy = operatorBy.toStdString();
    room.join_time = "2024-01-31 09:05:07";
    for (const char *member : { "alice@d", "bob@d" })
        room.members[member] = new Member{ member, std::string(member, 3), "t" };
    return room.toString();
}

QString kickText(const char *room, const char *memberIds, const char *kicker)
{
    const QJsonObject kick{ { "memberID", memberIds }, { "operatorBy", kicker } };
    return QString::fromStdString(roomText(room, QJsonDocument(kick).toJson(QJsonDocument::Compact)));
}

// A room-list reply holding the rooms `jids`.
QString roomListText(const std::vector<const char *> &jids)
{
    QJsonArray rooms;
    for (const char *jid : jids)
        rooms.append(
            QJsonObject{ { jid, QJsonDocument::fromJson(QByteArray::fromStdString(roomText(jid))).object() } });
    const QJsonObject list{ { "jid", "alice@d" }, { "name", "" }, { "rooms", rooms } };
    return QString::fromUtf8(QJsonDocument(list).toJson(QJsonDocument::Compact));
}

// The messages the library made up for room `jid` (sent by the room itself).
std::vector<Delivery> roomNotes(const AppState &r, const QString &jid)
{
    std::vector<Delivery> found;
    for (const Delivery &m : r.messages)
        if (m.from == jid && m.to == jid)
            found.push_back(m);
    return found;
}

int processThreads()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Threads:", 0) == 0)
            return std::stoi(line.substr(8));
    return -1;
}

} // namespace

TEST_F(RoomEvents, EachEventHandsItsValueAndOnlyEnteredRoomsAreSubscribed)
{
    const std::vector<std::pair<GroupSubCmd, const char *>> events = {
        { GroupSub_Create, "r1@d" },        { GroupSub_Release, "r2@d" },      { GroupSub_Invite, "r3@d" },
        { GroupSub_SetGroupName, "r4@d" },  { GroupSub_SetRoomCreater, "r5@d" }, { GroupSub_Modify_Type, "r6@d" },
        { GroupSub_Exit, "r7@d" },          { GroupSub_Query, "r8@d" },        { GroupSub_Join, "r9@d" },
    };
    for (const auto &[cmd, jid] : events)
        sendEvent(cmd, QString::fromStdString(roomText(jid)));
    fence();
    EXPECT_EQ(subscribedRooms(), (QList<std::string>{ "r1@d", "r2@d", "r3@d" }));
    EXPECT_TRUE(roomMessageArrives("r1@d"));
    EXPECT_TRUE(roomMessageArrives("r3@d"));
    EXPECT_FALSE(roomMessageArrives("r4@d"));

    lib->unRegisterToImServer(); // delivers every notification still waiting
    const AppState r = app.state();
    std::map<std::string, int> handed;
    for (const RoomChange &c : r.roomChanges) {
        QJsonObject room = QJsonDocument::fromJson(QByteArray::fromStdString(c.room)).object();
        handed[room.value("jid").toString().toStdString()] = c.cmd;
        if (c.cmd == GroupSub_Create) {
            EXPECT_EQ(c.room, roomText("r1@d")); // the server's text as it came
        }
    }
    const std::map<std::string, int> expected = {
        { "r1@d", 10 }, { "r2@d", 11 }, { "r3@d", 12 }, { "r4@d", 14 }, { "r5@d", 19 }, { "r6@d", 20 },
    };
    EXPECT_EQ(handed, expected);
    EXPECT_EQ(r.roomChanges.size(), expected.size());
    // Creation and release post a message from the room to itself.
    EXPECT_EQ(roomNotes(r, "r2@d").size(), 1u);
    const std::vector<Delivery> notes = roomNotes(r, "r1@d");
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(notes[0].body, QString());
    EXPECT_EQ(notes[0].bodyType, BODY_TYPE_DEFAULT);
    EXPECT_EQ(notes[0].msgType, MediaInfo::MESSAGE_TYPE_GROUPCHAT);
    EXPECT_TRUE(QRegularExpression("^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$").match(notes[0].messageKey).hasMatch())
        << notes[0].messageKey.toStdString();
    EXPECT_TRUE(QRegularExpression(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$)").match(notes[0].stamp).hasMatch())
        << notes[0].stamp.toStdString();
    EXPECT_TRUE(notes[0].readable);
    for (const char *quiet : { "r3@d", "r4@d", "r5@d", "r6@d", "r7@d", "r8@d", "r9@d" })
        EXPECT_TRUE(roomNotes(r, quiet).empty()) << quiet;
}

TEST_F(RoomEvents, KicksUnsubscribeTheKickedUserAndTellOnlyWhenSomeoneElseKicked)
{
    const QString list = roomListText({ "k3@d", "k1@d", "k4@d", "k2@d" });
    sendEvent(GroupSub_Refresh, list);
    ASSERT_TRUE(app.waitFor([](const AppState &r) { return !r.roomLists.empty(); }));
    EXPECT_EQ(app.state().roomLists, std::vector<QString>{ list });
    fence();
    ASSERT_EQ(subscribedRooms(), (QList<std::string>{ "k1@d", "k2@d", "k3@d", "k4@d" }));

    sendEvent(GroupSub_Kick, kickText("k1@d", "bob,alice", "carol")); // kicked by carol
    sendEvent(GroupSub_Kick, kickText("k2@d", "bob,malice", "carol")); // a byte search: "alice" is in "malice"
    sendEvent(GroupSub_Kick, kickText("k3@d", "bob", "alice"));        // alice kicks bob
    sendEvent(GroupSub_Kick, kickText("k4@d", "alice", "alice"));      // alice leaves by her own kick
    EXPECT_FALSE(roomMessageArrives("k1@d"));
    EXPECT_FALSE(roomMessageArrives("k2@d"));
    EXPECT_TRUE(roomMessageArrives("k3@d"));
    EXPECT_FALSE(roomMessageArrives("k4@d"));

    lib->unRegisterToImServer();
    const AppState r = app.state();
    ASSERT_EQ(r.roomChanges.size(), 4u);
    for (const RoomChange &c : r.roomChanges)
        EXPECT_EQ(c.cmd, GroupSub_Kick);
    for (const char *told : { "k1@d", "k2@d" }) {
        const std::vector<Delivery> notes = roomNotes(r, told);
        ASSERT_EQ(notes.size(), 1u) << told;
        EXPECT_EQ(notes[0].bodyType, BODY_TYPE_KICKED);
    }
    EXPECT_TRUE(roomNotes(r, "k3@d").empty());
    EXPECT_TRUE(roomNotes(r, "k4@d").empty());
}

TEST_F(RoomEvents, UnreadableBodiesChangeNoSubscriptionAndEmptyListsStillArrive)
{
    const QString emptyList = roomListText({});
    // Not JSON; an array; an object whose member repeats a key.
    for (const char *bad : { "not json", "[1]", R"({"jid":"r1@d","members":[{"a":{"jid":"x","jid":"y"}}]})" })
        sendEvent(GroupSub_Create, bad);
    sendEvent(GroupSub_Kick, "{");
    sendEvent(GroupSub_Refresh, "not json");
    sendEvent(GroupSub_Refresh, emptyList);
    fence();
    EXPECT_TRUE(subscribedRooms().isEmpty());

    lib->unRegisterToImServer();
    const AppState r = app.state();
    EXPECT_TRUE(r.roomChanges.empty());
    std::vector<QString> lists = r.roomLists; // two notification threads: any order
    std::sort(lists.begin(), lists.end());
    EXPECT_EQ(lists, (std::vector<QString>{ "not json", emptyList }));
    const std::vector<Delivery> notes = roomNotes(r, QString());
    ASSERT_EQ(notes.size(), 3u); // creation still posts its message, from and to empty
    for (const Delivery &m : notes)
        EXPECT_EQ(m.bodyType, BODY_TYPE_DEFAULT);
}

TEST_F(RoomEvents, LogoutWaitsForRunningNotificationsAndLeavesNoThread)
{
    // A fresh engine with slow room callbacks, flooded through the broker
    // and logged out while they run.
    lib.reset();
    const int threadsBefore = processThreads();
    std::atomic<int> started{ 0 }, finished{ 0 }, late{ 0 };
    std::atomic<bool> loggedOut{ false };
    app.roomChangedHook = [&](Room &, GroupSubCmd) {
        late += loggedOut ? 1 : 0;
        ++started;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        ++finished;
    };
    lib = std::make_unique<Message_lib>(&app, &app, "device-2", "test device");
    ASSERT_EQ(login(*lib, broker, "alice", 5, "d"), 1);
    ASSERT_TRUE(peer.waitForRequests(2)); // online again
    for (int i = 0; i < 300; ++i)
        sendEvent(GroupSub_SetGroupName, QString::fromStdString(roomText("r1@d")));
    ASSERT_TRUE(app.waitFor([](const AppState &r) { return !r.roomChanges.empty(); }));

    lib->unRegisterToImServer();
    loggedOut = true;
    EXPECT_EQ(started.load(), finished.load());
    EXPECT_LE(processThreads(), threadsBefore);
    lib.reset();
    EXPECT_EQ(late.load(), 0);
}

TEST(RoomNotifications, DestructionDeliversAWholeBurstOffTheFeedingThreadOnFewThreads)
{
    RecordingApp app;
    std::atomic<int> onFeeder{ 0 };
    const std::thread::id feeder = std::this_thread::get_id();
    app.roomChangedHook = [&](Room &, GroupSubCmd) {
        onFeeder += std::this_thread::get_id() == feeder ? 1 : 0;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    };
    auto lib = std::make_unique<Message_lib>(&app, &app, "device-1", "test device");
    const GroupEvent event = makeGroupEvent("alice@d", GroupSub_SetGroupName,
                                            QString::fromStdString(roomText("r1@d")), "server@d");
    std::string topic = event.topic;
    std::string payload = event.payload;
    constexpr int kEvents = 2000;
    for (int i = 0; i < kEvents; ++i)
        lib->engine()->messgeRecievedMore(0, topic.data(), payload.data(), int(payload.size()), 2, false);
    const std::size_t peak = lib->engine()->roomNotificationPeakThreads();

    lib.reset(); // every event taken in is delivered first
    EXPECT_EQ(app.state().roomChanges.size(), std::size_t(kEvents));
    EXPECT_EQ(onFeeder.load(), 0);
    EXPECT_GE(peak, 1u);
    EXPECT_LE(peak, 4u);
}
