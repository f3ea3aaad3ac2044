// The room commands as the server receives them: topic, envelope and body
// byte for byte, with the member and room JID rules; and their results.

#include "roomsession.h"

#include <functional>

using namespace kit;

namespace {

struct Command {
    std::function<int(Message_lib &)> call;
    int result;      // when published
    int offline;     // before any login
    const char *topic;
    const char *body;
};

const std::vector<Command> &commands()
{
    static const std::vector<Command> list = {
        { [](Message_lib &l) { return l.createMucRoom("r1", "Team", "bob,carol", ROOM_TYPE(3)); }, 1, 0,
          "s/g/c/server@d/c",
          R"({"creater":"","jid":"r1@d","join_time":"","members":[)"
          R"({"alice@d":{"jid":"alice@d","join_time":"","name":"alice"}},)"
          R"({"bob@d":{"jid":"bob@d","join_time":"","name":"bob"}},)"
          R"({"carol@d":{"jid":"carol@d","join_time":"","name":"carol"}}],)"
          R"("name":"Team","operatorBy":"","status":0,"type":3})" },
        // The creator is compared case-sensitively; an empty list is one empty member.
        { [](Message_lib &l) { return l.createMucRoom("r2", "", "Alice", ROOM_TYPE_DEFAULT); }, 1, 0,
          "s/g/c/server@d/c",
          R"({"creater":"","jid":"r2@d","join_time":"","members":[)"
          R"({"Alice@d":{"jid":"Alice@d","join_time":"","name":"Alice"}},)"
          R"({"alice@d":{"jid":"alice@d","join_time":"","name":"alice"}}],)"
          R"("name":"","operatorBy":"","status":0,"type":0})" },
        { [](Message_lib &l) { return l.createMucRoom("r3", "E", "", ROOM_TYPE_DEFAULT); }, 1, 0,
          "s/g/c/server@d/c",
          R"({"creater":"","jid":"r3@d","join_time":"","members":[)"
          R"({"@d":{"jid":"@d","join_time":"","name":""}},)"
          R"({"alice@d":{"jid":"alice@d","join_time":"","name":"alice"}}],)"
          R"("name":"E","operatorBy":"","status":0,"type":0})" },
        // A bare room id completes every part, even an empty one or a full JID.
        { [](Message_lib &l) { return l.inviteToRoom("r1", "bob,,x@y"); }, 1, 1, "s/g/c/server@d/i",
          R"({"creater":"","jid":"r1@d","join_time":"","members":[)"
          R"({"@d":{"jid":"@d","join_time":"","name":""}},)"
          R"({"bob@d":{"jid":"bob@d","join_time":"","name":"bob"}},)"
          R"({"x@y@d":{"jid":"x@y@d","join_time":"","name":"x@y"}}],)"
          R"("name":"r1","operatorBy":"","status":0,"type":0})" },
        // A full room id: parts are taken as JIDs, the room JID still gets the domain.
        { [](Message_lib &l) { return l.inviteToRoom("r@x", "bob@x,carol"); }, 1, 1, "s/g/c/server@d/i",
          R"({"creater":"","jid":"r@x@d","join_time":"","members":[)"
          R"({"bob@x":{"jid":"bob@x","join_time":"","name":"bob@x"}},)"
          R"({"carol":{"jid":"carol","join_time":"","name":"carol"}}],)"
          R"("name":"r@x","operatorBy":"","status":0,"type":0})" },
        { [](Message_lib &l) { return l.kickFromRoom("r1", "bob,carol"); }, 1, 0, "s/g/c/server@d/k",
          R"({"creater":"","jid":"r1@d","join_time":"","members":[)"
          R"({"bob@d":{"jid":"bob@d","join_time":"","name":"bob"}},)"
          R"({"carol@d":{"jid":"carol@d","join_time":"","name":"carol"}}],)"
          R"("name":"r1","operatorBy":"{\"memberID\":\"bob,carol\",\"operatorBy\":\"alice\"}",)"
          R"("status":0,"type":0})" },
        { [](Message_lib &l) { return l.destoryRoom("r1"); }, 1, 0, "s/g/c/server@d/r",
          R"({"creater":"","jid":"r1@d","join_time":"","members":[],)"
          R"("name":"r1","operatorBy":"","status":0,"type":0})" },
        { [](Message_lib &l) { return l.setRoomHumanName("r1", QString::fromUtf8("Équipe \"A\"")); }, 0, 0,
          "s/g/c/server@d/s",
          "{\"creater\":\"\",\"jid\":\"r1@d\",\"join_time\":\"\",\"members\":[],"
          "\"name\":\"\xC3\x89quipe \\\"A\\\"\",\"operatorBy\":\"\",\"status\":0,\"type\":0}" },
        { [](Message_lib &l) { return l.setRoomCreater("r1", "bob"); }, 1, 0, "s/g/c/server@d/g",
          R"({"member_id":"bob@d","room_id":"r1@d"})" },
        { [](Message_lib &l) { return l.setRoomCreater("r@x", "b@y"); }, 1, 0, "s/g/c/server@d/g",
          R"({"member_id":"b@y@d","room_id":"r@x@d"})" },
        { [](Message_lib &l) { return l.modifyRoomType("r1", ROOM_TYPE(3)); }, 1, 0, "s/g/c/server@d/m",
          R"({"room_type":"3","room_id":"r1@d"})" },
        { [](Message_lib &l) { return l.modifyRoomType("r@x", ROOM_TYPE(-2)); }, 1, 0, "s/g/c/server@d/m",
          R"({"room_type":"-2","room_id":"r@x"})" },
    };
    return list;
}

using RoomCommands = RoomSession;

} // namespace

TEST_F(RoomCommands, ReachTheServerAsSpecifiedBytes)
{
    const std::size_t first = peer.requests().size();
    for (const Command &c : commands())
        EXPECT_EQ(c.call(*lib), c.result) << c.body;
    ASSERT_TRUE(peer.waitForRequests(first + commands().size()));

    const std::vector<RoomServerPeer::Request> got = peer.requests();
    ASSERT_EQ(got.size(), first + commands().size());
    for (std::size_t i = 0; i < commands().size(); ++i) {
        const RoomServerPeer::Request &r = got[first + i];
        SCOPED_TRACE(commands()[i].body);
        EXPECT_EQ(r.topic, commands()[i].topic);
        EXPECT_EQ(r.body, commands()[i].body);
        EXPECT_EQ(r.from, kUserJid);
        EXPECT_EQ(r.to, kServerJid);
        EXPECT_EQ(r.msgType, MediaInfo::MESSAGE_TYPE_SYSTEM);
        EXPECT_EQ(r.secLevel, SECURITY_LEVEL_UNRESTRICTED);
        EXPECT_EQ(r.bodyType, BODY_TYPE_DEFAULT);
        EXPECT_TRUE(r.encrypted);
    }
}

TEST(RoomCommandsOffline, ReportNothingPublishedExceptInviteAndRename)
{
    RecordingApp app;
    Message_lib lib(&app, &app, "device-1", "test device");
    for (const Command &c : commands())
        EXPECT_EQ(c.call(lib), c.offline) << c.body;
}
