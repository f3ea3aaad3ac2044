// Grammar tables and the operations that measure, check and describe chains.

#include "mqttmesaageprotocol.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <set>
#include <string>

namespace {

// A heap chain copied from the given rows, freed on destruction.
class Chain {
public:
    Chain(std::initializer_list<const ProtocolHead *> rows)
    {
        ProtocolHead **slot = &head_;
        for (const ProtocolHead *row : rows) {
            *slot = new ProtocolHead(*row);
            (*slot)->next = nullptr;
            slot = &(*slot)->next;
        }
    }
    ~Chain() { MqttMesaageProtocol::deleteProtocol(head_); }
    ProtocolHead *head() const { return head_; }

private:
    ProtocolHead *head_ = nullptr;
};

const ProtocolHead *kSystem = &protocolHeadALL[3];
const ProtocolHead *kGroupCmd = &protocolHeadALL[4];
const ProtocolHead *kGroupInfo = &protocolHeadALL[5];
const ProtocolHead *kConferenceCmd = &protocolHeadALL[6];
const ProtocolHead *kResponse = &groupInfoProtocolHead[1];

struct Table {
    const ProtocolHead *rows;
    const char *maxName;
    int count;
};

const Table kTables[] = {
    { protocolHeadALL, "Protocol_MAX", 13 },
    { messageSubHead, "MESSAGE_SUB_MAX", 4 },
    { groupCMDProtocolHead, "GroupSub_MAX", 11 },
    { groupInfoProtocolHead, "SubInfo_MAX", 2 },
    { friendSubCmdProtocolHead, "FriendSub_MAX", 4 },
    { friendSubInfoProtocolHead, "FriendSubInfo_MAX", 3 },
    { remoteDesktopSubCmdProtocolHead, "RemoteDesktopSub_MAX", 2 },
    { remoteDesktopSubInfoProtocolHead, "RemoteDesktopSubInfo_MAX", 2 },
    { HistorySubCmdProtocolHead, "HistorySub_MAX", 3 },
    { HistorySubInfoHead, "HistorySubInfo_MAX", 3 },
};

} // namespace

TEST(GrammarTables, CountRowsAndUniqueCodes)
{
    for (const Table &t : kTables) {
        SCOPED_TRACE(t.maxName);
        EXPECT_EQ(t.rows[0].code, t.count);
        EXPECT_STREQ(t.rows[0].name, t.maxName);
        EXPECT_STREQ(t.rows[0].pattern, "xx");
        EXPECT_EQ(t.rows[0].levels, 0);
        std::set<int> codes;
        std::set<std::string> letters;
        for (int i = 1; i <= t.count; ++i) {
            EXPECT_EQ(t.rows[i].next, nullptr);
            EXPECT_TRUE(codes.insert(t.rows[i].code).second) << "duplicate code in row " << i;
            EXPECT_TRUE(letters.insert(t.rows[i].pattern).second) << "duplicate pattern in row " << i;
        }
    }
}

TEST(ChainMeasures, CountAndLevels)
{
    Chain create{ kSystem, kGroupCmd, &groupCMDProtocolHead[1] };
    EXPECT_EQ(MqttMesaageProtocol::subHeadCount(create.head()), 3u);
    EXPECT_TRUE(MqttMesaageProtocol::validePickVlaues(create.head()));
    EXPECT_EQ(MqttMesaageProtocol::subHeadCount(nullptr), 0u);

    Chain noLetter{ kSystem, kGroupCmd };
    EXPECT_FALSE(MqttMesaageProtocol::validePickVlaues(noLetter.head()));

    Chain info4{ kSystem, kGroupInfo, kResponse, &groupCMDProtocolHead[1] };
    EXPECT_TRUE(MqttMesaageProtocol::validePickVlaues(info4.head()));
    Chain info3{ kSystem, kGroupInfo, kResponse };
    EXPECT_FALSE(MqttMesaageProtocol::validePickVlaues(info3.head()));

    Chain message{ &protocolHeadALL[1] };
    EXPECT_TRUE(MqttMesaageProtocol::validePickVlaues(message.head()));

    // A conference row asks for two nodes but nothing can give the second.
    Chain conference{ kSystem, kConferenceCmd };
    EXPECT_FALSE(MqttMesaageProtocol::validePickVlaues(conference.head()));
}

TEST(ChainMeasures, Descriptions)
{
    Chain create{ kSystem, kGroupCmd, &groupCMDProtocolHead[1] };
    EXPECT_EQ(MqttMesaageProtocol::getCmdDesc(create.head()), "SYSTEM/GroupCMD/GroupSub_Create/");
    EXPECT_EQ(MqttMesaageProtocol::getCmdDesc(nullptr), "");
    Chain one{ &protocolHeadALL[1] };
    EXPECT_EQ(MqttMesaageProtocol::getCmdDesc(one.head()), "MESSAGE/");

    // The same code names different commands at different depths.
    MqttMesaageProtocol p("s/g/i/a@b/r/m");
    ASSERT_EQ(p.subCount(), 4u);
    EXPECT_EQ(p.next->next->code, 20);
    EXPECT_EQ(p.next->next->next->code, 20);
    EXPECT_EQ(p.getCmdDescribe(), "SYSTEM/GroupINFO/SubInfo_CMD_RESPONSE/GroupSub_Modify_Type/");
}
