// End to end through a real broker: every command sent with fromText
// reaches exactly its handler once with its envelope intact;
// complete chains without a handler reach none; unreadable payloads are
// dropped while the messages after them still arrive.

#include "eventlog.h"
#include "mosquittobroker.h"
#include "mqttmessage.h"
#include "pushclient.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

constexpr const char *kUser = "bob@im.test";

// The handlers in slot order.
// clang-format off
#define PUSHCHAT_HANDLERS(X)                                                                                           \
    X(SysGroupCreated) X(SysGroupReleased) X(SysGroupInvited) X(SysGroupKicked) X(SysGroupNameChanged)                 \
    X(SysGroupExited) X(SysGroupQueryed) X(SysGroupJoined) X(SysGroupRefreshed) X(SysGroupSetCreater)                  \
    X(SysGroupModifyType) X(messageReceive) X(messagePresenceIn) X(messageModifyStatus) X(messageModifyClientStatus)   \
    X(FriendAdded) X(FriendAccepted) X(FriendDeleted) X(FriendListRequest) X(FriendListIncoming)                       \
    X(setFriendPropoties) X(RemoteDesktopControlRequest) X(RemoteDesktopControlResponse)                              \
    X(RemoteDesktopBeControlRequest) X(RemoteDesktopBeControlResponse) X(historyMessageResponse)                      \
    X(historyMessageConvResonse) X(historyMessageConvDetailResonse)
#define PUSHCHAT_RECORD(name) void name(MQTTMessage *m) override { record(#name, m); }
// clang-format on
#define PUSHCHAT_NAME(name) #name,
const char *const kHandlers[] = { PUSHCHAT_HANDLERS(PUSHCHAT_NAME) };

// Receives as the engine does and logs each handler call as
// "handler|topic|from|to|body|k|st|s|bt|v|encrypted"; what is not dispatched
// as "none|topic" (no handler) or "dropped|topic" (not readable).
class Receiver : public PushEventReciever, public MQTTProtocolMatchCallback {
public:
    PushClient *client = nullptr;
    EventLog log;

    PUSHCHAT_HANDLERS(PUSHCHAT_RECORD)

    void record(const char *handler, MQTTMessage *m)
    {
        log.add(fields(handler, m->topicText, m->from, m->to, m->body, m->messageKey, m->stamp, m->secLevel,
            m->bodyType, m->msgType, m->encrypted));
    }

    void messgeRecievedMore(int, char *topic, void *payload, int, int, bool) override
    {
        MQTTMessage in(nullptr, true);
        if (std::strncmp(topic, "test/", 5) == 0)
            log.add(topic);
        else if (!in.fromTopic(topic, static_cast<const char *>(payload)) ||
                 (in.protocol.code != MESSAGE && in.protocol.code != SYSTEM))
            log.add(fields("dropped", topic));
        else if (!in.startMatchSys(this))
            log.add(fields("none", topic));
    }

    void connectStatus(bool connected) override
    {
        // Subscribes from inside the callback, as the engine does.
        char all[] = "#";
        if (connected && client->subscribe(all) == 0)
            client->publish("test/ready", "", 2, false);
    }
};

} // namespace

TEST(WireDispatch, EveryCommandReachesItsHandlerExactlyOnce)
{
    // In slot order; then complete chains that no handler takes.
    const char *const commands[] = { "s/g/i/%1/r/c", "s/g/i/%1/r/r", "s/g/i/%1/r/i", "s/g/i/%1/r/k", "s/g/i/%1/r/s",
        "s/g/i/%1/r/e", "s/g/i/%1/r/q", "s/g/i/%1/r/j", "s/g/i/%1/r/f", "s/g/i/%1/r/g", "s/g/i/%1/r/m", "m/i/%1/n",
        "m/i/%1/d", "m/i/%1/m", "m/i/%1/c", "s/f/c/%1/a", "s/f/i/%1/a", "s/f/c/%1/d", "s/f/c/%1/l", "s/f/i/%1/l",
        "s/f/c/%1/s", "s/r/c/%1/c", "s/r/i/%1/c", "s/r/c/%1/b", "s/r/i/%1/b", "s/h/i/%1/l", "s/h/i/%1/c", "s/h/i/%1/vd",
        "s/g/c/%1/c", "s/g/c/%1/f", "s/g/i/%1/o/f", "s/f/i/%1/d", "s/h/c/%1/l", "s/h/c/%1/vd" };
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start()) << broker.log();
    Receiver receiver; // outlives the clients that call it
    char bobId[] = "bob@im.test@device-1", aliceId[] = "alice@im.test@device-1";
    PushClient bob(bobId), alice(aliceId);
    receiver.client = &bob;
    bob.setEventRecv(&receiver);
    bob.start_connect(broker.host(), broker.port(), 60);
    ASSERT_TRUE(receiver.log.waitFor([](const Lines &l) { return !l.empty(); })) << broker.log();
    alice.start_connect(broker.host(), broker.port(), 60);

    const QString body = QString::fromUtf8("你好, Bob — \"quoted\" & <tagged>\n第二行");
    Lines expected{ "test/ready" };
    for (int i = 0; i < int(std::size(commands)); ++i) {
        MQTTMessage out(&alice, true);
        ASSERT_TRUE(out.protocol.fromTopic(QString(commands[i]).arg(kUser).toUtf8()));
        ASSERT_TRUE(out.fromText("alice@im.test", kUser, body, MediaInfo::MESSAGE_TYPE_CHAT, 40 + i, BODY_TYPE_NOTICE,
            QStringLiteral("key-%1").arg(i), QStringLiteral("st-%1").arg(i)));
        ASSERT_TRUE(out.send(2)) << out.topicText;
        expected.push_back(
            i >= int(std::size(kHandlers))
                ? fields("none", out.topicText)
                : fields(kHandlers[i], out.topicText, "alice@im.test", kUser, body, "key-" + std::to_string(i),
                      "st-" + std::to_string(i), 40 + i, BODY_TYPE_NOTICE, MediaInfo::MESSAGE_TYPE_CHAT, true));
    }
    // A lone MESSAGE chain (device, sync topics) goes to the chat handler, the
    // count row of the group letters reads as Release; unreadable payloads
    // and incomplete chains are dropped, and what follows still arrives.
    MQTTMessage plain(&alice, false);
    plain.encText("a@b", kUser, "x", MediaInfo::MESSAGE_TYPE_CHAT, BODY_TYPE_DEFAULT, "", "", 1);
    const struct {
        const char *topic;
        std::string payload;
        const char *handler; // null: dropped
    } raw[] = { { "m/a@b/deviceId/abc", plain.payload, "messageReceive" }, { "m/i/a@b/n", "anot json", nullptr },
        { "s/f/c/a@b/a", "Bgarbage", nullptr }, { "m/i/a@b/z", plain.payload, nullptr },
        { "xxanything", plain.payload, nullptr }, { "s/g/i/a@b/r/xx", plain.payload, "SysGroupReleased" } };
    for (const auto &r : raw) {
        ASSERT_EQ(alice.publish(r.topic, r.payload.c_str(), 2, false), 0);
        expected.push_back(!r.handler ? fields("dropped", r.topic)
                                      : fields(r.handler, r.topic, "a@b", kUser, "x", "", "", 1, 0, 1, false));
    }
    ASSERT_EQ(alice.publish("test/end", "", 2, false), 0);
    expected.push_back("test/end");
    ASSERT_TRUE(receiver.log.waitForPrefix("test/end"));
    EXPECT_EQ(receiver.log.lines(), expected);
}
