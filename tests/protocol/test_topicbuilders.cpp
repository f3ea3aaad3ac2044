// Building command topics, plain message topics and subscription lists.

#include "mqttmesaageprotocol.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<int> codesOf(const MqttMesaageProtocol &p)
{
    std::vector<int> codes;
    for (const ProtocolHead *n = &p; n != nullptr && n->code != 0; n = n->next)
        codes.push_back(n->code);
    return codes;
}

struct Command {
    int family, sub, sub2; // sub2 only for two-letter commands, else -1
    const char *topic;
    std::vector<int> chain;
};

} // namespace

TEST(TopicBuilders, EveryCommandTopicParsesBackToItsChain)
{
    const Command commands[] = {
        { GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Create, "s/g/i/a@b/r/c", { 3, 5, 20, 10 } },
        { MESSAGE_INFO, MESSAGE_NORMAL, -1, "m/i/a@b/n", { 1, 2, 22 } },
        { MESSAGE_INFO, MESSAGE_PRESENCE, -1, "m/i/a@b/d", { 1, 2, 23 } },
        { MESSAGE_INFO, MESSAGE_MODYFY_STATUS, -1, "m/i/a@b/m", { 1, 2, 24 } },
        { GroupCMD, GroupSub_Create, -1, "s/g/c/a@b/c", { 3, 4, 10 } },
        { GroupCMD, GroupSub_Release, -1, "s/g/c/a@b/r", { 3, 4, 11 } },
        { GroupCMD, GroupSub_Invite, -1, "s/g/c/a@b/i", { 3, 4, 12 } },
        { GroupCMD, GroupSub_Kick, -1, "s/g/c/a@b/k", { 3, 4, 13 } },
        { GroupCMD, GroupSub_SetGroupName, -1, "s/g/c/a@b/s", { 3, 4, 14 } },
        { GroupCMD, GroupSub_SetRoomCreater, -1, "s/g/c/a@b/g", { 3, 4, 18 } },
        { GroupCMD, GroupSub_Refresh, -1, "s/g/c/a@b/f", { 3, 4, 19 } },
        { GroupCMD, GroupSub_Modify_Type, -1, "s/g/c/a@b/m", { 3, 4, 20 } },
        { FriendCMD, FriendSub_Add, -1, "s/f/c/a@b/a", { 3, 8, 26 } },
        { FriendCMD, FriendSub_Del, -1, "s/f/c/a@b/d", { 3, 8, 27 } },
        { FriendCMD, FriendSub_List, -1, "s/f/c/a@b/l", { 3, 8, 28 } },
        { FriendCMD, FriendSub_SetPro, -1, "s/f/c/a@b/s", { 3, 8, 29 } },
        { FriendInfo, FriendSubInfo_Accept, -1, "s/f/i/a@b/a", { 3, 9, 30 } },
        { RemoteDesktopCMD, RemoteDesktopSub_ReqCtl, -1, "s/r/c/a@b/c", { 3, 10, 33 } },
        { RemoteDesktopCMD, RemoteDesktopSub_ReqBeCtl, -1, "s/r/c/a@b/b", { 3, 10, 34 } },
        { RemoteDesktopINFO, RemoteDesktopSubInfo_ReqCtl, -1, "s/r/i/a@b/c", { 3, 11, 35 } },
        { RemoteDesktopINFO, RemoteDesktopSubInfo_ReqBeCtl, -1, "s/r/i/a@b/b", { 3, 11, 36 } },
        { HistoryCMD, HistorySub_List, -1, "s/h/c/a@b/l", { 3, 12, 37 } },
        { HistoryCMD, HistorySub_Converstaion, -1, "s/h/c/a@b/c", { 3, 12, 38 } },
        { HistoryCMD, HistorySub_Converstaion_Detail, -1, "s/h/c/a@b/vd", { 3, 12, 39 } },
    };
    for (const Command &c : commands) {
        SCOPED_TRACE(c.topic);
        MqttMesaageProtocol p;
        EXPECT_TRUE(c.sub2 < 0 ? p.fromSysProtocol("a@b", 2, c.family, c.sub)
                               : p.fromSysProtocol("a@b", 3, c.family, c.sub, c.sub2));
        EXPECT_EQ(p.topic, c.topic);
        EXPECT_EQ(codesOf(p), c.chain);
        EXPECT_EQ(p.jid, "a@b");
    }
}

TEST(TopicBuilders, RefusedCommands)
{
    MqttMesaageProtocol p;
    EXPECT_FALSE(p.fromSysProtocol("a@b", 2, GroupINFO, SubInfo_CMD_RESPONSE)); // asks for 2 letters
    EXPECT_FALSE(p.fromSysProtocol("a@b", 2, FriendCMD, FriendSubInfo_Accept)); // not in its table
    EXPECT_FALSE(p.fromSysProtocol("a@b", 2, MESSAGE, MESSAGE_NORMAL));
    EXPECT_FALSE(p.fromSysProtocol("a@b", 2, SYSTEM, GroupSub_Create));
    EXPECT_FALSE(p.fromSysProtocol("a@b", 2, ConferenceCMD, 1)); // no sub-table
    EXPECT_FALSE(p.fromSysProtocol("a@b", 0));
    EXPECT_FALSE(p.fromSysProtocol("a@b", 2, 0, 22));
    EXPECT_FALSE(p.fromSysProtocol("a@b", 2, 99, 22));
    EXPECT_FALSE(p.fromSysProtocol("a@b", 1, FriendCMD)); // no sub-command
    // Nothing was built: the object still holds no topic.
    EXPECT_EQ(p.code, 0);
    EXPECT_EQ(p.topic, "");
    EXPECT_EQ(p.jid, "a@b"); // the addressee is recorded before the checks

    // A topic that does not parse back is refused but its text is kept.
    EXPECT_FALSE(p.fromSysProtocol("no-at-sign", 2, FriendCMD, FriendSub_Add));
    EXPECT_EQ(p.topic, "s/f/c/no-at-sign/a");
    EXPECT_FALSE(p.valid);
}

TEST(TopicBuilders, PlainMessageTopics)
{
    MqttMesaageProtocol p;
    EXPECT_TRUE(p.fromMessageProtocol("a@b", "sync"));
    EXPECT_EQ(p.topic, "m/a@b/sync");
    EXPECT_EQ(p.jid, "a@b/sync");
    EXPECT_EQ(codesOf(p), (std::vector<int>{ 1 }));
    EXPECT_TRUE(p.fromMessageProtocol("a@b", nullptr));
    EXPECT_EQ(p.topic, "m/a@b/");
}

TEST(TopicBuilders, SubscriptionListAndSingleTopics)
{
    const auto topics = MqttMesaageProtocol::getRecieveTopic("u@d");
    const std::vector<std::string> expected = {
        "m/i/u@d/#", "s/g/i/u@d/#", "s/g/c/u@d/#", "s/c/c/u@d/#", "s/c/i/u@d/#", "s/f/c/u@d/#",
        "s/f/i/u@d/#", "s/r/c/u@d/#", "s/r/i/u@d/#", "s/h/i/u@d/#", "m/ntc/#",
    };
    EXPECT_EQ(std::vector<std::string>(topics.begin(), topics.end()), expected);

    EXPECT_EQ(MqttMesaageProtocol::getSendToTopic("room@conf.d"), "m/i/room@conf.d/");
    EXPECT_EQ(MqttMesaageProtocol::getDeviceTopic("u@d"), "m/u@d/deviceId/");
    EXPECT_EQ(MqttMesaageProtocol::getSyncMessageTopic("u@d"), "m/u@d/sync/");
    EXPECT_EQ(MqttMesaageProtocol::getFreshGroupTopic("u@d"), "s/g/c/u@d/f");

    MqttMesaageProtocol refresh;
    ASSERT_TRUE(refresh.fromSysProtocol("u@d", 2, GroupCMD, GroupSub_Refresh));
    EXPECT_EQ(refresh.topic, MqttMesaageProtocol::getFreshGroupTopic("u@d"));

    // A JID is substituted as plain text, and "#" never reaches a single topic.
    EXPECT_EQ(MqttMesaageProtocol::getSendToTopic("<jid>@d"), "m/i/<jid>@d/");
    EXPECT_EQ(MqttMesaageProtocol::getSendToTopic("a#b@d"), "m/i/ab@d/");
    EXPECT_EQ(MqttMesaageProtocol::getDeviceTopic(QString::fromUtf8("用户@d")), "m/用户@d/deviceId/");
}
