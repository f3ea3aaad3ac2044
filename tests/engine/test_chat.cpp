// Chat between two façades through a real broker: the security rule,
// recipients without a domain, notices, status changes, presence and
// locations, checked both in the callbacks and on the wire.

#include "enginetestkit.h"

#include <gtest/gtest.h>

using namespace kit;

namespace {

class EngineChat : public TwoUsers<> {
protected:
    EngineChat() : TwoUsers(-2, 5) {}

    int say(Message_lib &from, const char *to, int level, const QString &text, int bodyType = BODY_TYPE_DEFAULT,
            bool toRoom = false)
    {
        return from.sendTextMessageTo("ignored@else.where", QString::fromUtf8(to), level, text,
                                      MESSAGE_BODY_TYPE(bodyType), toRoom, "key:" + text, "stamp:" + text);
    }
};

struct Expect {
    const char *body;
    int bodyType, msgType;
    bool readable;
};

void expectDeliveries(const std::vector<Delivery> &got, const char *from, const char *to,
                      const std::vector<Expect> &want)
{
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
        SCOPED_TRACE(want[i].body);
        const QString sent = QString::fromUtf8(want[i].body);
        EXPECT_EQ(got[i].from, from);
        EXPECT_EQ(got[i].to, to);
        EXPECT_EQ(got[i].body, want[i].readable ? sent : unreadableText());
        EXPECT_EQ(got[i].readable, want[i].readable);
        EXPECT_EQ(got[i].bodyType, want[i].bodyType);
        EXPECT_EQ(got[i].msgType, want[i].msgType);
        EXPECT_EQ(got[i].messageKey, "key:" + sent);
        EXPECT_EQ(got[i].stamp, "stamp:" + sent);
    }
}

} // namespace

// Alice's level is -2, Bob's 5: a body is readable when its level is 9999
// or not below the reader's, compared as signed numbers.
TEST_F(EngineChat, BothWaysUnderTheSecurityRule)
{
    // To "bob": the domain is added. The first argument is not the sender.
    EXPECT_EQ(say(alice, "bob", 3, "level 3"), 1);
    EXPECT_EQ(say(alice, "bob", 5, "level 5 — 你好"), 1);
    EXPECT_EQ(say(alice, "bob", 9999, "level 9999"), 1);
    EXPECT_EQ(say(alice, "bob", 7, "level 7, kind 3, room", 3, true), 1);
    EXPECT_EQ(say(alice, "bob", -1, "level -1"), 1);
    // To a full JID: used as it is.
    EXPECT_EQ(say(bob, "alice@im.test", -1, "back at -1"), 1);
    EXPECT_EQ(say(bob, "alice@im.test", -3, "back at -3"), 1);
    EXPECT_EQ(say(bob, "alice@im.test", 2, "back at 2"), 1);

    ASSERT_TRUE(bobApp.waitForMessages(5));
    ASSERT_TRUE(aliceApp.waitForMessages(3));
    expectDeliveries(bobApp.state().messages, "alice@im.test", "bob@im.test",
                     { { "level 3", 0, 1, false },
                       { "level 5 — 你好", 0, 1, true },
                       { "level 9999", 0, 1, true },
                       { "level 7, kind 3, room", 3, 4, true },
                       { "level -1", 0, 1, false } });
    expectDeliveries(aliceApp.state().messages, "bob@im.test", "alice@im.test",
                     { { "back at -1", 0, 1, true }, { "back at -3", 0, 1, false }, { "back at 2", 0, 1, true } });

    // On the wire: enciphered, on the recipient's message topic, the body
    // and level as sent: hiding is the receiver's business.
    ASSERT_TRUE(wire.waitForCount("m/i/bob@im.test/n", 5));
    const Envelope first = openEnvelope(wire.on("m/i/bob@im.test/n")[0].payload);
    EXPECT_TRUE(first.encrypted);
    EXPECT_EQ(first.body, "level 3");
    EXPECT_EQ(first.secLevel, 3);
    EXPECT_EQ(first.from, "alice@im.test");
    EXPECT_TRUE(wire.waitForCount("m/i/alice@im.test/n", 3));
}

TEST_F(EngineChat, NoticesAreForEveryone)
{
    // A notice asked for at level 3 goes out at 9999 on "m/ntc/".
    EXPECT_EQ(say(alice, "bob", 3, "notice", BODY_TYPE_NOTICE), 1);
    ASSERT_TRUE(wire.waitForCount("m/ntc/", 1));
    const Envelope notice = openEnvelope(wire.on("m/ntc/")[0].payload);
    EXPECT_TRUE(notice.encrypted);
    EXPECT_EQ(notice.secLevel, SECURITY_LEVEL_UNRESTRICTED);
    EXPECT_EQ(notice.bodyType, BODY_TYPE_NOTICE);
    EXPECT_EQ(notice.to, "bob@im.test");
    EXPECT_TRUE(wire.on("m/i/bob@im.test/n").empty());

    // Received notices skip the security rule; a topic that merely starts
    // with "m/ntc/" is an ordinary message; an unreadable notice still
    // arrives, empty.
    const std::string low = sealEnvelope("server@im.test", "all", "raw notice", 3, BODY_TYPE_NOTICE, 1, "k", "s");
    ASSERT_TRUE(wire.publish("m/ntc/", low));
    ASSERT_TRUE(wire.publish("m/ntc/more", sealEnvelope("server@im.test", "all", "not a notice", 3)));
    ASSERT_TRUE(wire.publish("m/ntc/", "not an envelope"));

    ASSERT_TRUE(bobApp.waitForMessages(4));
    ASSERT_TRUE(aliceApp.waitForMessages(4));
    const std::vector<Delivery> got = bobApp.state().messages;
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].from, "alice@im.test");
    EXPECT_EQ(got[0].body, "notice");
    EXPECT_EQ(got[0].bodyType, BODY_TYPE_NOTICE);
    EXPECT_EQ(got[0].messageKey, "key:notice");
    EXPECT_TRUE(got[0].readable);
    EXPECT_EQ(got[1].body, "raw notice");
    EXPECT_EQ(got[1].to, "all");
    EXPECT_EQ(got[1].stamp, "s");
    EXPECT_TRUE(got[1].readable);
    EXPECT_EQ(got[2].body, unreadableText());
    EXPECT_FALSE(got[2].readable);
    EXPECT_EQ(got[3].from, "");
    EXPECT_EQ(got[3].to, "");
    EXPECT_EQ(got[3].body, "");
    EXPECT_EQ(got[3].bodyType, 0);
    EXPECT_EQ(got[3].msgType, 0);
    EXPECT_TRUE(got[3].readable);
    // Alice's level -2 is below 3 too, yet she reads both notices.
    EXPECT_EQ(aliceApp.state().messages[1].body, "raw notice");
}

TEST_F(EngineChat, StatusPresenceAndLocation)
{
    // Status change: a system request to the server.
    EXPECT_EQ(alice.modifyMessageStatus("msg-1", MSG_STATUS(3)), 1);
    EXPECT_EQ(only("m/i/server@im.test/m", "alice@im.test", kServer), R"({"status":3,"uuid":"msg-1"})");

    // Status notifications: only a non-empty JSON object is one.
    for (const char *body : { "", "[1,2]", "{}", "no json", R"({"modifier":"carol@im.test","status":4,"uuid":"u-1"})",
                              R"({"uuid":"u-2"})" })
        ASSERT_TRUE(wire.publish("m/i/bob@im.test/c",
                                 sealEnvelope("server@im.test", "bob@im.test", QString::fromUtf8(body), 9999)));
    // A peer's presence, body unparsed.
    const QString presence = R"({"device_id":"x","device_name":"y","text":"APP_STARTUP","type":1})";
    ASSERT_TRUE(wire.publish("m/i/bob@im.test/d", sealEnvelope("carol@im.test", "bob@im.test", presence, 9999)));

    ASSERT_TRUE(bobApp.waitFor([](const AppState &s) { return !s.presences.empty() && s.statuses.size() >= 2; }));
    const AppState s = bobApp.state();
    using Status = std::tuple<QString, QString, int>;
    EXPECT_EQ(s.statuses, (std::vector<Status>{ Status{ "carol@im.test", "u-1", 4 }, Status{ "", "u-2", 0 } }));
    ASSERT_EQ(s.presences.size(), 1u);
    EXPECT_EQ(s.presences[0].first, "carol@im.test");
    EXPECT_EQ(s.presences[0].second, presence);
    EXPECT_TRUE(s.messages.empty());

    // Location: raw text, no envelope.
    EXPECT_EQ(alice.sendLocation("bob@im.test", "31.23", "北纬"), 1);
    ASSERT_TRUE(wire.waitForCount("LOCATION/bob@im.test", 1));
    EXPECT_EQ(wire.on("LOCATION/bob@im.test")[0].payload, "31.23:北纬");
}
