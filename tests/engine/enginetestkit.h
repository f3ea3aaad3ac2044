#ifndef ENGINETESTKIT_H
#define ENGINETESTKIT_H

// The engine tests' kit. App turns every callback into one EventLog line;
// Wire sees every message on the broker as one line "topic|qos|envelope"
// and publishes raw; net() is one broker per executable with a wire and
// alice and bob online (level 5, domain im.test); checkRows and
// checkIncoming run tables of commands and of incoming messages.

#include "eventlog.h"
#include "groupevent.h"
#include "message_lib.h"
#include "messageprivate.h"
#include "mosquittobroker.h"
#include "pushclient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <sstream>

namespace kit {

constexpr const char *kUnreadable = "[此消息已加密,您无权阅读]";
constexpr int kNone = -1; // a row whose call returns nothing
#define KIT_CALL(...) [](Message_lib &l) { return l.__VA_ARGS__; }
#define KIT_VOID(...) [](Message_lib &l) { return l.__VA_ARGS__, kit::kNone; }

using S = const char *;
using Q = QString;

class App : public ImEventReciever, public ImMUCEventReciever, public ImContactEventReciever {
public:
    EventLog log;
    std::function<void()> onRoom; // runs first in onRoomChanged; set before login

    void onConnected() override { log.add("connected"); }
    void onDisconnected() override { log.add("disconnected"); }
    void onMessageReceive(Q f, Q t, Q b, int bt, int v, Q k, Q st, bool ok) override
    {
        log.add(fields("message", f, t, b, bt, v, k, st, ok));
    }
    void onHistoryMessages(S j) override { log.add(fields("history", j)); }
    void onConversations(S j) override { log.add(fields("conversations", j)); }
    void onConversationDetail(S j) override { log.add(fields("detail", j)); }
    void onPresence(Q f, Q b) override { log.add(fields("presence", f, b)); }
    void onMessageStatusModified(Q m, Q u, int s) override { log.add(fields("status", m, u, s)); }
    void onFriendAdded(Q f, Q t, Q b) override { log.add(fields("friendAdded", f, t, b)); }
    void onFriendAccepted(Q f, Q t, int x) override { log.add(fields("friendAccepted", f, t, x)); }
    void onFriendDeleted(Q f, Q t, int x) override { log.add(fields("friendDeleted", f, t, x)); }
    void onFriendList(S j) override { log.add(fields("friendList", j)); }
    void onRemoteDesktopControlRequest(S f, S t, S b) override { log.add(fields("rdControlRequest", f, t, b)); }
    void onRemoteDesktopControlResponse(S f, S t, S b) override { log.add(fields("rdControlResponse", f, t, b)); }
    void onRemoteDesktopBeControlRequest(S f, S t, S b) override { log.add(fields("rdBeControlRequest", f, t, b)); }
    void onRemoteDesktopBeControlResponse(S f, S t, S b) override { log.add(fields("rdBeControlResponse", f, t, b)); }
    void onRoomListRefreshed(Q j) override { log.add(fields("roomList", j)); }
    void onRoomChanged(Room &room, GroupSubCmd cmd) override
    {
        if (onRoom)
            onRoom();
        log.add(fields("room", cmd, room.toString()));
    }
    void onSubscribeRequest(Q j, Q a, Q b) override { log.add(fields("subscribe", j, a, b)); }
    void onContactInfo(Q j, Q a, bool x, bool y, QStringList l) override
    {
        log.add(fields("contactInfo", j, a, x, y, l.join(',')));
    }
    void onOwnerVCard(Q t) override { log.add(fields("vcard", t)); }
};

/// An enciphered envelope with key "k" and stamp "st".
inline std::string seal(
    const QString &from, const QString &to, const QString &body, int level, int bodyType = 0, int msgType = 1)
{
    MQTTMessage m(nullptr, true);
    m.fromText(from, to, body, MediaInfo::MessageType(msgType), level, MESSAGE_BODY_TYPE(bodyType), "k", "st");
    return m.payload;
}

/// "topic|qos|from|to|level|bodyType|msgType|key|stamp|body", or
/// "topic|qos|payload" when the payload is no envelope.
inline std::string render(const std::string &topic, int qos, const std::string &payload)
{
    MQTTMessage m(nullptr, true);
    if (!m.parseMessage(payload.c_str()))
        return fields(topic, qos, payload);
    return fields(topic, qos, m.from, m.to, m.secLevel, m.bodyType, m.msgType, m.messageKey, m.stamp, m.body);
}

inline std::size_t countWith(const Lines &lines, const std::string &text)
{
    return std::size_t(std::count_if(
        lines.begin(), lines.end(), [&](const std::string &l) { return l.find(text) != std::string::npos; }));
}

class Wire : public PushEventReciever {
public:
    EventLog log;

    ~Wire() override
    {
        delete m_client.get(); // callbacks read m_client until the destructor returns
        m_client.release();
    }
    bool start(const MosquittoBroker &broker)
    {
        PushClientOptions options;
        options.reconnectDelayMin = std::chrono::milliseconds(20);
        options.reconnectDelayMax = std::chrono::milliseconds(200);
        std::string id = "wire";
        m_client = std::make_unique<PushClient>(id.data(), options);
        m_client->setEventRecv(this);
        m_client->start_connect(broker.host(), broker.port(), 60);
        return eventually([&] { return fence(std::chrono::milliseconds(100)); });
    }
    void messgeRecievedMore(int, char *topic, void *payload, int length, int qos, bool) override
    {
        log.add(render(topic, qos, std::string(static_cast<const char *>(payload), std::size_t(length))));
    }
    void connectStatus(bool connected) override
    {
        if (connected)
            m_client->subscribe({ "#" }, 2); // deliveries keep the QoS they were published with
    }
    bool publish(const std::string &topic, const std::string &payload)
    {
        return m_client->publish(topic.c_str(), payload.c_str(), 2, false) == 0;
    }
    /// Everything the broker routed to the wire before now has arrived.
    bool fence(std::chrono::milliseconds limit = kWaitLimit)
    {
        const std::string mark = "wire/" + std::to_string(++m_fences);
        return publish(mark, "") && log.waitForPrefix(mark + "|", 1, limit);
    }
    /// The lines after the first `mark` that are not the wire's own.
    Lines after(std::size_t mark) const
    {
        const Lines all = log.lines();
        Lines out;
        for (std::size_t i = mark; i < all.size(); ++i)
            if (all[i].compare(0, 5, "wire/") != 0)
                out.push_back(all[i]);
        return out;
    }
    /// The lines after `mark` that hold "|<user>@".
    Lines linesOf(std::size_t mark, const std::string &user) const
    {
        Lines out;
        for (const std::string &l : after(mark))
            if (l.find("|" + user + "@") != std::string::npos)
                out.push_back(l);
        return out;
    }
    /// Waits for `n` lines after `mark`, then for the rest in flight.
    Lines await(std::size_t mark, std::size_t n)
    {
        eventually([&] { return after(mark).size() >= n; });
        fence();
        return after(mark);
    }

private:
    std::unique_ptr<PushClient> m_client;
    std::atomic<int> m_fences{ 0 };
};

/// The subscription changes the broker logged for `client`: "+topic", "-topic".
inline Lines subscriptions(const MosquittoBroker &broker, const std::string &client)
{
    Lines out;
    std::istringstream in(broker.log());
    std::string mark; // "+" or "-" while the topics of the client's packet follow
    for (std::string line; std::getline(in, line);) {
        const std::string text = line.substr(std::min(line.size(), line.find(": ") + 2));
        if (!text.empty() && text[0] == '\t' && !mark.empty())
            out.push_back(mark + text.substr(1, text.find(" (QoS") - 1));
        else
            mark = text == "Received SUBSCRIBE from " + client     ? "+"
                   : text == "Received UNSUBSCRIBE from " + client ? "-"
                                                                   : "";
    }
    return out;
}

inline bool login(
    Message_lib &lib, const MosquittoBroker &broker, const char *user, int level, const char *domain = "im.test")
{
    return lib.registerToImServer(broker.host(), broker.port(), user, QString(), level, domain, QString()) == 1;
}

/// `app` heard its n-th connect and the n-th APP_STARTUP of `jid` reached
/// the wire (so the subscriptions sent before it are in force).
inline bool online(App &app, Wire &wire, const std::string &jid, std::size_t n = 1)
{
    const auto startups = [&](const Lines &l) {
        return std::count_if(l.begin(), l.end(), [&](const std::string &s) {
            return s.find("|2|" + jid + "|") != std::string::npos && s.find("APP_STARTUP") != std::string::npos;
        }) >= long(n);
    };
    return app.log.waitForPrefix("connected", n) && wire.log.waitFor(startups);
}

struct Net {
    // No bound on messages in flight to a client: QoS 0 would otherwise pass
    // QoS 2 messages queued behind the bound (see the README, Broker).
    MosquittoBroker broker{ MosquittoBroker::Options{ true, true, "log_type all\nmax_inflight_messages 0" } };
    Wire wire;
    App aliceApp, bobApp;
    Message_lib alice{ &aliceApp, &aliceApp, "dev-a", "Alice Desk" };
    Message_lib bob{ &bobApp, &bobApp, "dev-b", "Bob Desk" };
    const bool up = broker.start() && wire.start(broker) && login(alice, broker, "alice", 5) &&
                    login(bob, broker, "bob", 5) && online(aliceApp, wire, "alice@im.test") &&
                    online(bobApp, wire, "bob@im.test");
};

/// The executable's broker, started by the first test that asks.
inline Net &net()
{
    static Net shared;
    return shared;
}

/// A command: its result logged in (as alice) and before any login, and
/// the one message it puts on the wire.
struct Row {
    const char *name;
    std::function<int(Message_lib &)> call;
    int online, offline;
    std::string wire;
};

inline void checkRows(const std::vector<Row> &rows)
{
    Net &n = net();
    ASSERT_TRUE(n.up) << n.broker.log();
    Message_lib offline(nullptr, nullptr, "dev-x", "X");
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        const int before = r.call(offline);
        const std::size_t mark = n.wire.log.lines().size();
        const int now = r.call(n.alice);
        if (r.online != kNone) {
            EXPECT_EQ(fields(now, before), fields(r.online, r.offline));
        }
        EXPECT_EQ(n.wire.await(mark, 1), Lines{ r.wire });
    }
}

/// A message the wire sends on `topic` ("%" stands for the user's JID):
/// `body` sealed from carol@im.test at `level`, raw when the level is kNone.
struct In {
    std::string topic, body;
    int level;
    Lines heard;
};

/// A presence sent to `jid` after everything before it has reached `app`.
inline bool delivered(App &app, const std::string &jid)
{
    static std::atomic<int> marks{ 0 };
    const std::string mark = "fence " + std::to_string(++marks);
    return net().wire.publish("m/i/" + jid + "/d", seal("wire", "", mark.c_str(), 9999)) &&
           app.log.waitForPrefix("presence|wire|" + mark);
}

/// Each row, then a presence as a fence: what `app` logged in between.
inline void checkIncoming(App &app, const std::string &jid, const std::vector<In> &rows)
{
    Net &n = net();
    for (In r : rows) {
        SCOPED_TRACE(r.topic + " " + r.body);
        const std::size_t mark = app.log.lines().size();
        const std::size_t at = r.topic.find('%');
        r.topic = at == std::string::npos ? r.topic : r.topic.replace(at, 1, jid);
        ASSERT_TRUE(n.wire.publish(
            r.topic, r.level == kNone ? r.body : seal("carol@im.test", jid.c_str(), r.body.c_str(), r.level)));
        ASSERT_TRUE(delivered(app, jid));
        const Lines all = app.log.lines();
        EXPECT_EQ(Lines(all.begin() + long(mark), all.end() - 1), r.heard);
    }
}

} // namespace kit

#endif // ENGINETESTKIT_H
