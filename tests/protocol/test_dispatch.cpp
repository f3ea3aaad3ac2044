// Command dispatch: which chain reaches which handler, and what is dropped.

#include "dispatchcases.h"
#include "mqttmessage.h"
#include "recordingcallback.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Builds the outgoing message for a case, as a peer would send it.
bool buildCase(const DispatchCase &c, MQTTMessage &out, const char *jid)
{
    const bool built = c.subs.size() == 2
                           ? out.setSysProtocol(jid, 3, c.family, c.subs[0], c.subs[1])
                           : out.setSysProtocol(jid, 2, c.family, c.subs[0]);
    out.fromText(QStringLiteral("sender@d"), QString::fromUtf8(jid), QString::fromUtf8("内容 body"),
                 MediaInfo::MESSAGE_TYPE_CHAT, 7, BODY_TYPE_NOTICE, QStringLiteral("mk"),
                 QStringLiteral("st"));
    return built;
}

// Delivers a topic and payload as the engine does; -1 when nothing was called.
int deliver(const std::string &topic, const std::string &payload, RecordingCallback &cb)
{
    MQTTMessage in(nullptr, true);
    if (!in.fromTopic(topic.c_str(), payload.c_str()))
        return -2;
    if (in.protocol.code != MESSAGE && in.protocol.code != SYSTEM)
        return -3;
    const std::size_t before = cb.records().size();
    const bool called = in.startMatchSys(&cb);
    const auto records = cb.records();
    EXPECT_EQ(called, records.size() == before + 1);
    EXPECT_LE(records.size(), before + 1) << "a handler ran twice";
    return called ? records.back().slot : -1;
}

} // namespace

TEST(Dispatch, EveryCommandReachesItsHandlerOnce)
{
    for (const DispatchCase &c : dispatchCases()) {
        MQTTMessage out(nullptr, true);
        ASSERT_TRUE(buildCase(c, out, "user@d/res"));
        SCOPED_TRACE(out.topicText);
        RecordingCallback cb;
        EXPECT_EQ(deliver(out.topicText, out.payload, cb), c.slot);
        if (c.slot >= 0) {
            const DispatchRecord r = cb.records().at(0);
            EXPECT_EQ(r.from, "sender@d");
            EXPECT_EQ(r.to, "user@d/res");
            EXPECT_EQ(r.body, "内容 body");
            EXPECT_EQ(r.secLevel, 7);
            EXPECT_EQ(r.bodyType, 7);
            EXPECT_EQ(r.msgType, 1);
            EXPECT_EQ(r.messageKey, "mk");
            EXPECT_EQ(r.stamp, "st");
            EXPECT_TRUE(r.encrypted);
        }
    }
}

TEST(Dispatch, PrefixRuleAndDroppedMessages)
{
    MQTTMessage plain(nullptr, false);
    plain.encText("a@b", "c@d", "x", MediaInfo::MESSAGE_TYPE_CHAT, BODY_TYPE_DEFAULT, "", "", 1);
    RecordingCallback cb;
    // A lone "MESSAGE" chain (device or sync topic) goes to the chat handler.
    EXPECT_EQ(deliver("m/a@b/deviceId/abc", plain.payload, cb), 11);
    EXPECT_EQ(deliver("m/a@b/sync/", plain.payload, cb), 11);
    // The count row of the group commands resolves "xx" and means Release.
    EXPECT_EQ(deliver("s/g/i/a@b/r/xx", plain.payload, cb), 1);
    EXPECT_EQ(deliver("s/g/i/a@b/o/f", plain.payload, cb), -1);
    EXPECT_EQ(deliver("s/f/i/a@b/d", plain.payload, cb), -1);
    EXPECT_EQ(deliver("s/h/c/a@b/l", plain.payload, cb), -1);
    const std::size_t dispatched = cb.records().size();

    // Parses, but the payload is not a JSON object: never dispatched.
    EXPECT_EQ(deliver("m/i/a@b/n", "anot json", cb), -2);
    EXPECT_EQ(deliver("s/f/c/a@b/a", "a[]", cb), -2);
    EXPECT_EQ(deliver("s/f/c/a@b/a", "Bgarbage", cb), -2);
    // Incomplete chains and unknown families.
    EXPECT_EQ(deliver("m/i/a@b/z", plain.payload, cb), -2);
    EXPECT_EQ(deliver("s/c/c/a@b/c", plain.payload, cb), -2);
    EXPECT_EQ(deliver("q/a@b", plain.payload, cb), -2);
    // The count row parses but is not a family: the payload is not read.
    MQTTMessage counted(nullptr, true);
    EXPECT_FALSE(counted.fromTopic("xxanything", plain.payload.c_str()));
    EXPECT_EQ(counted.from, "");
    EXPECT_EQ(cb.records().size(), dispatched);
}

TEST(Dispatch, MatchingAndBuildingThroughTheMessage)
{
    MQTTMessage in(nullptr, true);
    ASSERT_TRUE(in.fromTopic("s/r/i/a@b/b", "a{}"));
    EXPECT_TRUE(in.matchSysProtocol(3, 3, 11, 36));
    EXPECT_TRUE(in.matchSysProtocol(4, 3, 11, 36, 1));
    EXPECT_FALSE(in.matchSysProtocol(2, 3, 11));
    EXPECT_FALSE(in.matchSysProtocol(3, 3, 11, 35));

    // A command that cannot be built falls back to the plain topic.
    MQTTMessage out(nullptr, true);
    EXPECT_FALSE(out.setSysProtocol("a@b", 2, ConferenceCMD, 1));
    out.fromText("me@d", "a@b", "x", MediaInfo::MESSAGE_TYPE_SYSTEM, 9999, BODY_TYPE_DEFAULT, "", "");
    EXPECT_EQ(out.topicText, "m/a@b/");
}
