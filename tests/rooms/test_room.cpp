// Room records: the exact JSON they write, how they read the server's JSON,
// and that they delete what they own exactly once.

#include "room.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <new>
#include <string>

// Every operator new/delete of this program is counted, so a scope that
// builds and destroys records can check that it freed all it allocated (a
// second delete is caught by the allocator or by ASan).
namespace {
std::atomic<long> liveAllocations{0};
}

void *operator new(std::size_t size)
{
    if (void *p = std::malloc(size ? size : 1)) {
        ++liveAllocations;
        return p;
    }
    throw std::bad_alloc();
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    void *p = std::malloc(size ? size : 1);
    if (p)
        ++liveAllocations;
    return p;
}
void operator delete(void *p) noexcept
{
    if (p) {
        --liveAllocations;
        std::free(p);
    }
}
void operator delete(void *p, std::size_t) noexcept { operator delete(p); }
void operator delete(void *p, const std::nothrow_t &) noexcept { operator delete(p); }

namespace {

QJsonObject parse(const char *json)
{
    const QJsonDocument doc = QJsonDocument::fromJson(QByteArray(json));
    EXPECT_TRUE(doc.isObject()) << json;
    return doc.object();
}

void addMember(Room &room, const std::string &key, const std::string &name)
{
    auto *member = new Member;
    member->jid = key;
    member->name = name;
    member->join_time = "t-" + key;
    room.members[key] = member;
}

std::string memberName(const Room &room, const std::string &key)
{
    const auto it = room.members.find(key);
    return it == room.members.end() ? "<missing>" : it->second->name;
}

} // namespace

TEST(RoomWrite, EightKeysAndMembersInKeyOrder)
{
    EXPECT_EQ(Room().toString(),
              R"({"creater":"","jid":"","join_time":"","members":[],"name":"",)"
              R"("operatorBy":"","status":0,"type":0})");
    Room room;
    room.jid = "r1@d";
    room.name = "R";
    room.creater = "c@d";
    room.type = ROOM_TYPE(3);
    room.status = -1;
    room.operatorBy = R"({"memberID":"x"})";
    room.join_time = "2024";
    for (const char *key : { "beta", "alpha", "ab", "a" })
        addMember(room, key, "n");

    EXPECT_EQ(room.toString(),
              R"({"creater":"c@d","jid":"r1@d","join_time":"2024","members":[)"
              R"({"a":{"jid":"a","join_time":"t-a","name":"n"}},)"
              R"({"ab":{"jid":"ab","join_time":"t-ab","name":"n"}},)"
              R"({"alpha":{"jid":"alpha","join_time":"t-alpha","name":"n"}},)"
              R"({"beta":{"jid":"beta","join_time":"t-beta","name":"n"}}],)"
              R"("name":"R","operatorBy":"{\"memberID\":\"x\"}","status":-1,"type":3})");
}

TEST(RoomRead, EveryKeyOfEveryElementIsAMemberAndLaterKeysWin)
{
    Room room;
    room.fromJson(parse(R"({"members":[
        {"b":{"name":"B1"},"a":{"jid":"a@d","name":"A","join_time":"t"}},
        {"b":{"name":"B2"}},
        {"c":5,"d":"text","e":[1]},
        "not an object", 7, [ {"z":{}} ]]})"));

    ASSERT_EQ(room.members.size(), 5u);
    EXPECT_EQ(room.members.at("a")->jid, "a@d");
    EXPECT_EQ(room.members.at("a")->join_time, "t");
    EXPECT_EQ(memberName(room, "b"), "B2");
    for (const char *key : { "c", "d", "e" }) {
        const Member &m = *room.members.at(key);
        EXPECT_TRUE(m.jid.empty() && m.name.empty() && m.join_time.empty()) << key;
    }
}

TEST(RoomRead, MembersThatAreNotAnArrayLeaveTheMapAlone)
{
    for (const char *json : { R"({})", R"({"members":[]})", R"({"members":{"a":{}}})",
                              R"({"members":"a"})" }) {
        Room room;
        addMember(room, "kept", "K");
        room.fromJson(parse(json));
        ASSERT_EQ(room.members.size(), 1u) << json;
        EXPECT_EQ(memberName(room, "kept"), "K");
    }

    // A non-empty array adds to the map; only a repeated key is replaced.
    Room room;
    addMember(room, "kept", "K");
    addMember(room, "a", "old");
    room.fromJson(parse(R"({"members":[{"a":{"name":"new"}}]})"));
    EXPECT_EQ(room.members.size(), 2u);
    EXPECT_EQ(memberName(room, "kept"), "K");
    EXPECT_EQ(memberName(room, "a"), "new");
}

TEST(RoomRead, NumbersMustBeWholeAndInIntRange)
{
    const struct {
        const char *json;
        int expected;
    } cases[] = {
        { "7", 7 },           { "-1", -1 },   { "2.5", 0 },        { "\"3\"", 0 },
        { "true", 0 },        { "null", 0 },  { "3000000000", 0 }, { "-2147483648", INT_MIN },
        { "2147483647", INT_MAX }, { "1e2", 100 }, { "{}", 0 },
    };
    for (const auto &c : cases) {
        const std::string json = std::string(R"({"type":)") + c.json + R"(,"status":)" + c.json + "}";
        Room room;
        room.fromJson(parse(json.c_str()));
        EXPECT_EQ(int(room.type), c.expected) << json;
        EXPECT_EQ(room.status, c.expected) << json;
    }
    Room missing;
    missing.type = ROOM_TYPE(5);
    missing.status = 5;
    missing.fromJson(QJsonObject());
    EXPECT_EQ(int(missing.type), 0);
    EXPECT_EQ(missing.status, 0);
}

TEST(RoomRead, MistypedStringsReadEmpty)
{
    Room room;
    room.jid = room.name = room.creater = room.operatorBy = room.join_time = "stale";
    room.fromJson(parse(R"({"jid":5,"name":null,"creater":["x"],"operatorBy":{"a":1}})"));
    for (const std::string *field : { &room.jid, &room.name, &room.creater, &room.operatorBy,
                                      &room.join_time })
        EXPECT_TRUE(field->empty()) << *field;
}

TEST(RoomRoundTrip, KeepsEveryFieldIncludingNonAscii)
{
    Room out;
    out.jid = "房间@域";
    out.name = "Ünïcødé \xF0\x9F\x98\x80 \"q\" \\ \n";
    out.creater = "créateur@d";
    out.type = ROOM_TYPE(-7);
    out.status = 42;
    out.operatorBy = "оператор";
    out.join_time = "2024-05-01 12:00:00.123";
    addMember(out, "成员@域", "名字");
    addMember(out, "plain@d", "Ω");

    // The writer's bytes are checked above: writing the read record again
    // gives the same text only if every field came back.
    const std::string text = out.toString();
    Room in;
    in.fromJson(parse(text.c_str()));
    ASSERT_EQ(in.members.size(), 2u);
    EXPECT_EQ(in.toString(), text);
}

TEST(RoomListRead, ReadsEachRoomAndLaterJidsWin)
{
    for (const char *json : { R"({"jid":"u@d","name":"N"})", R"({"jid":"u@d","name":"N","rooms":[]})",
                              R"({"jid":"u@d","name":"N","rooms":{"r@d":{}}})" }) {
        RoomList list;
        list.fromJson(parse(json));
        EXPECT_TRUE(list.rooms.empty()) << json;
        EXPECT_EQ(list.jid, "u@d");
        EXPECT_EQ(list.name, "N");
    }

    RoomList list;
    list.fromJson(parse(R"({"rooms":[
        {"r2@d":{"name":"first","members":[{"m@d":{"name":"M"}}]},"r1@d":{"name":"one","type":4}},
        {"r2@d":{"name":"second"}},
        {"r3@d":"not an object"}]})"));

    ASSERT_EQ(list.rooms.size(), 3u);
    EXPECT_EQ(list.rooms.at("r1@d")->name, "one");
    EXPECT_EQ(int(list.rooms.at("r1@d")->type), 4);
    EXPECT_EQ(list.rooms.at("r2@d")->name, "second");
    EXPECT_TRUE(list.rooms.at("r2@d")->members.empty());
    EXPECT_EQ(list.rooms.at("r3@d")->toString(), Room().toString());
}

TEST(Ownership, EveryRecordIsFreedOnce)
{
    // Strings long enough to be allocated, so a leaked record shows.
    const QJsonObject roomJson = parse(R"({"jid":"a room with a long enough jid@d","members":[
        {"member one with a long key@d":{"name":"a long enough member name one"},
         "member two with a long key@d":{"name":"a long enough member name two"}},
        {"member one with a long key@d":{"name":"replacing the first member one"}}]})");
    QJsonObject listJson;
    {
        QJsonArray rooms;
        rooms.append(QJsonObject{ { "room one with a long enough jid@d", roomJson } });
        rooms.append(QJsonObject{ { "room two with a long enough jid@d", roomJson },
                                  { "room one with a long enough jid@d", roomJson } });
        listJson.insert("rooms", rooms);
    }

    const auto leaked = [](const auto &build) {
        const long before = liveAllocations;
        build();
        return liveAllocations - before;
    };
    EXPECT_EQ(leaked([&] {
        Room room;
        room.fromJson(roomJson);
        EXPECT_EQ(room.members.size(), 2u);
    }), 0) << "Room";
    EXPECT_EQ(leaked([&] {
        Room room;
        addMember(room, "member two with a long key@d", "stored before reading");
        room.fromJson(roomJson);
        EXPECT_EQ(room.members.size(), 2u);
    }), 0) << "Room read over an existing member";
    EXPECT_EQ(leaked([&] {
        RoomList list;
        list.fromJson(listJson);
        EXPECT_EQ(list.rooms.size(), 2u);
    }), 0) << "RoomList";
}
