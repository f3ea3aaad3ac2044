#ifndef ENGINETESTKIT_H
#define ENGINETESTKIT_H

// Helpers for the engine tests over a real broker: RecordingApp records
// every callback from any thread; WireObserver sees (subscribed to "#") and
// publishes raw messages; brokerEvents reads the broker's log per client;
// TwoUsers is a broker, a wire observer and two online façades, alice and
// bob.

#include "message_lib.h"
#include "messageprivate.h"
#include "mosquittobroker.h"
#include "mqttmessage.h"
#include "pushclient.h"

#include <QString>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace kit {

using namespace std::chrono_literals;
constexpr std::chrono::milliseconds kTimeout = 15s;

constexpr const char *kDomain = "im.test";
constexpr const char *kServer = "server@im.test";
/// What a user may not read, as the application sees it.
inline QString unreadableText() { return QString::fromUtf8("[此消息已加密,您无权阅读]"); }

/// Polls `condition` until it holds or the timeout passes.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds timeout = kTimeout)
{
    const auto limit = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= limit)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

/// A broker that logs every packet (needed by brokerEvents).
inline MosquittoBroker::Options brokerOptions(bool persistence = false)
{
    MosquittoBroker::Options options;
    options.persistence = persistence;
    options.extraConfig = "log_type all";
    return options;
}

// --- application side ---------------------------------------------------

struct Delivery {
    QString from, to, body;
    int bodyType = -1, msgType = -1;
    QString messageKey, stamp;
    bool readable = false;
};

struct RoomChange {
    int cmd;
    std::string room; // Room::toString of the room handed over
};

struct AppState {
    int connected = 0;
    int disconnected = 0;
    std::vector<Delivery> messages;
    std::vector<std::pair<QString, QString>> presences;     // from, body
    std::vector<std::tuple<QString, QString, int>> statuses; // modifier, uuid, status
    // The history, friend and remote-desktop callbacks: the callback's name
    // followed by its arguments as text.
    std::vector<std::vector<std::string>> calls;
    std::vector<RoomChange> roomChanges;
    std::vector<QString> roomLists;
};

class RecordingApp : public ImEventReciever, public ImMUCEventReciever {
public:
    /// Runs inside onRoomChanged before it is recorded (set before login).
    std::function<void(Room &, GroupSubCmd)> roomChangedHook;

    void onConnected() override { record([](AppState &s) { ++s.connected; }); }
    void onDisconnected() override { record([](AppState &s) { ++s.disconnected; }); }
    void onMessageReceive(QString from, QString to, QString body, int bodyType, int msgType, QString messageKey,
                          QString stamp, bool readable) override
    {
        record([&](AppState &s) {
            s.messages.push_back({ from, to, body, bodyType, msgType, messageKey, stamp, readable });
        });
    }
    void onPresence(QString from, QString body) override
    {
        record([&](AppState &s) { s.presences.emplace_back(from, body); });
    }
    void onMessageStatusModified(QString modifier, QString uuid, int status) override
    {
        record([&](AppState &s) { s.statuses.emplace_back(modifier, uuid, status); });
    }
    void onRoomListRefreshed(QString json) override
    {
        record([&](AppState &s) { s.roomLists.push_back(json); });
    }
    void onRoomChanged(Room &room, GroupSubCmd cmd) override
    {
        if (roomChangedHook)
            roomChangedHook(room, cmd);
        const std::string text = room.toString();
        record([&](AppState &s) { s.roomChanges.push_back({ cmd, text }); });
    }
    void onFriendAdded(QString from, QString to, QString body) override
    {
        raw({ "onFriendAdded", from.toStdString(), to.toStdString(), body.toStdString() });
    }
    void onFriendAccepted(QString from, QString to, int flag) override
    {
        raw({ "onFriendAccepted", from.toStdString(), to.toStdString(), std::to_string(flag) });
    }
    void onFriendDeleted(QString from, QString to, int flag) override
    {
        raw({ "onFriendDeleted", from.toStdString(), to.toStdString(), std::to_string(flag) });
    }
    void onFriendList(const char *json) override { raw({ "onFriendList", json }); }
    void onHistoryMessages(const char *json) override { raw({ "onHistoryMessages", json }); }
    void onConversations(const char *json) override { raw({ "onConversations", json }); }
    void onConversationDetail(const char *json) override { raw({ "onConversationDetail", json }); }
    void onRemoteDesktopControlRequest(const char *from, const char *to, const char *body) override
    {
        raw({ "onRemoteDesktopControlRequest", from, to, body });
    }
    void onRemoteDesktopControlResponse(const char *from, const char *to, const char *body) override
    {
        raw({ "onRemoteDesktopControlResponse", from, to, body });
    }
    void onRemoteDesktopBeControlRequest(const char *from, const char *to, const char *body) override
    {
        raw({ "onRemoteDesktopBeControlRequest", from, to, body });
    }
    void onRemoteDesktopBeControlResponse(const char *from, const char *to, const char *body) override
    {
        raw({ "onRemoteDesktopBeControlResponse", from, to, body });
    }

    template <class Predicate>
    bool waitFor(Predicate predicate, std::chrono::milliseconds timeout = kTimeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return predicate(state_); });
    }
    bool waitForMessages(std::size_t count)
    {
        return waitFor([&](const AppState &s) { return s.messages.size() >= count; });
    }
    /// The calls recorded once there are at least `count` (checked).
    std::vector<std::vector<std::string>> waitCalls(std::size_t count)
    {
        EXPECT_TRUE(waitFor([&](const AppState &s) { return s.calls.size() >= count; })) << count;
        return state().calls;
    }
    AppState state() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return state_;
    }

private:
    void raw(std::vector<std::string> call)
    {
        record([&](AppState &s) { s.calls.push_back(std::move(call)); });
    }
    template <class Change>
    void record(Change change)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            change(state_);
        }
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    AppState state_;
};

/// Logs a façade in to the test broker (the domain is kDomain unless given).
inline int login(Message_lib &lib, const MosquittoBroker &broker, const char *user, int level,
                 const char *domain = kDomain)
{
    return lib.registerToImServer(QString::fromLatin1(broker.host()), broker.port(), QString::fromUtf8(user),
                                  QString(), level, QString::fromUtf8(domain), QString());
}

// --- the wire -------------------------------------------------------------

struct WireMessage {
    std::string topic;
    std::string payload;
};

struct Envelope {
    bool parsed = false;
    bool encrypted = false;
    std::string from, to, body, messageKey, stamp;
    int secLevel = 0, bodyType = 0, msgType = 0;
};

inline Envelope openEnvelope(const std::string &payload)
{
    MQTTMessage msg(nullptr, true);
    const bool parsed = msg.parseMessage(payload.c_str());
    return { parsed,         msg.encrypted, msg.from,     msg.to,       msg.body,
             msg.messageKey, msg.stamp,     msg.secLevel, msg.bodyType, msg.msgType };
}

/// An enciphered envelope, as any sender builds it.
inline std::string sealEnvelope(const QString &from, const QString &to, const QString &body, int secLevel,
                                int bodyType = BODY_TYPE_DEFAULT, int msgType = MediaInfo::MESSAGE_TYPE_CHAT,
                                const QString &key = QString(), const QString &stamp = QString())
{
    MQTTMessage msg(nullptr, true);
    msg.fromText(from, to, body, MediaInfo::MessageType(msgType), secLevel, MESSAGE_BODY_TYPE(bodyType), key,
                 stamp);
    return msg.payload;
}

/// A system request as every one of them looks on the wire: enciphered,
/// unrestricted, default body, no key and no stamp.
inline void expectSystemEnvelope(const Envelope &e, const std::string &from, const std::string &to)
{
    EXPECT_TRUE(e.parsed);
    EXPECT_TRUE(e.encrypted);
    EXPECT_EQ(e.from, from);
    EXPECT_EQ(e.to, to);
    EXPECT_EQ(e.msgType, MediaInfo::MESSAGE_TYPE_SYSTEM);
    EXPECT_EQ(e.secLevel, SECURITY_LEVEL_UNRESTRICTED);
    EXPECT_EQ(e.bodyType, BODY_TYPE_DEFAULT);
    EXPECT_EQ(e.messageKey, "");
    EXPECT_EQ(e.stamp, "");
}

/// Subscribes to "#" after every connect and records everything.
class WireObserver : public PushEventReciever {
public:
    explicit WireObserver(std::string id = "wire-observer") : id_(std::move(id)) {}
    ~WireObserver() override
    {
        // Callbacks read client_ until the client's destructor returns.
        delete client_.get();
        client_.release();
    }

    /// Connects and waits until its subscription is in force.
    bool start(const MosquittoBroker &broker)
    {
        PushClientOptions options;
        options.reconnectDelayMin = 20ms;
        options.reconnectDelayMax = 200ms;
        client_ = std::make_unique<PushClient>(id_.data(), options);
        client_->setEventRecv(this);
        client_->start_connect(broker.host(), broker.port(), 60);
        const std::string probe = "probe/" + id_;
        return eventually([&] {
            client_->publish(probe.c_str(), "probe", 2, false);
            return waitFor([&](const std::vector<WireMessage> &all) { return count(all, probe) > 0; }, 100ms);
        });
    }

    void messgeRecievedMore(int, char *topic, void *payload, int length, int, bool) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            messages_.push_back({ topic, std::string(static_cast<const char *>(payload), std::size_t(length)) });
        }
        changed_.notify_all();
    }
    void connectStatus(bool connected) override
    {
        if (connected) {
            char all[] = "#";
            client_->subscribe(all);
        }
    }

    /// Publishes raw text at QoS 2.
    bool publish(const std::string &topic, const std::string &payload)
    {
        return client_->publish(topic.c_str(), payload.c_str(), 2, false) == 0;
    }

    std::vector<WireMessage> on(const std::string &topic) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<WireMessage> out;
        for (const WireMessage &m : messages_) {
            if (m.topic == topic)
                out.push_back(m);
        }
        return out;
    }
    /// Envelopes seen on `topic` whose body contains `text`.
    std::vector<Envelope> envelopes(const std::string &topic, const std::string &text = std::string()) const
    {
        std::vector<Envelope> out;
        for (const WireMessage &m : on(topic)) {
            Envelope e = openEnvelope(m.payload);
            if (e.body.find(text) != std::string::npos)
                out.push_back(e);
        }
        return out;
    }
    bool waitForCount(const std::string &topic, std::size_t n)
    {
        return waitFor([&](const std::vector<WireMessage> &all) { return count(all, topic) >= n; });
    }
    bool waitForEnvelope(const std::string &topic, const std::string &text, std::size_t n = 1)
    {
        return eventually([&] { return envelopes(topic, text).size() >= n; });
    }
    /// Publishes a marker to itself and waits for it: everything the broker
    /// had routed to the observer before has arrived by then.
    bool roundTrip()
    {
        const std::string topic = "marker/" + id_;
        const std::size_t before = on(topic).size();
        return publish(topic, "marker") && waitForCount(topic, before + 1);
    }

    template <class Predicate>
    bool waitFor(Predicate predicate, std::chrono::milliseconds timeout = kTimeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return predicate(messages_); });
    }

private:
    static std::size_t count(const std::vector<WireMessage> &all, const std::string &topic)
    {
        return std::size_t(
            std::count_if(all.begin(), all.end(), [&](const WireMessage &m) { return m.topic == topic; }));
    }

    std::string id_;
    std::unique_ptr<PushClient> client_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<WireMessage> messages_;
};

// --- the broker's log -----------------------------------------------------

/// What the broker logged about one client, one line per packet or topic:
/// "connect (p2, c0, k60)", "will <topic> q<n>", "subscribe <topic> q<n>",
/// "unsubscribe <topic>", "publish <topic> q<n>", "DISCONNECT" (an orderly
/// end), "link closed" (the socket went away), "taken over".
inline std::vector<std::string> brokerEvents(const std::string &log, const std::string &client)
{
    std::vector<std::string> events;
    std::istringstream in(log);
    std::string line;
    enum { None, Will, Sub, Unsub } mode = None;
    std::string current; // client of the packet being listed
    const auto startsWith = [](const std::string &text, const std::string &prefix) {
        return text.compare(0, prefix.size(), prefix) == 0;
    };
    while (std::getline(in, line)) {
        const std::size_t colon = line.find(": ");
        if (colon == std::string::npos)
            continue;
        const std::string text = line.substr(colon + 2);
        if (startsWith(text, "\t")) {
            if (current != client)
                continue;
            const std::string item = text.substr(1);
            if (mode == Sub) {
                const std::size_t q = item.rfind(" (QoS ");
                events.push_back("subscribe " + item.substr(0, q) + " q" + item.substr(q + 6, 1));
            } else if (mode == Unsub) {
                events.push_back("unsubscribe " + item);
            } else if (mode == Will) {
                events.back() = "will " + item + events.back();
            }
            continue;
        }
        mode = None;
        if (startsWith(text, "New client connected from ")) {
            const std::size_t as = text.find(" as ");
            const std::size_t paren = text.find(" (", as);
            current = text.substr(as + 4, paren - as - 4);
            if (current == client)
                events.push_back("connect" + text.substr(paren, text.size() - paren - 1));
        } else if (startsWith(text, "Will message specified")) {
            mode = Will;
            if (current == client) {
                const std::size_t q = text.rfind(", q");
                events.push_back(" q" + text.substr(q + 3, 1)); // completed by the topic line
            }
        } else if (startsWith(text, "Received SUBSCRIBE from ")) {
            mode = Sub;
            current = text.substr(24);
        } else if (startsWith(text, "Received UNSUBSCRIBE from ")) {
            mode = Unsub;
            current = text.substr(26);
        } else if (startsWith(text, "Received PUBLISH from " + client + " (")) {
            const std::size_t q = text.find(", q");
            const std::size_t open = text.find('\'');
            const std::size_t close = text.find("', ", open + 1);
            events.push_back("publish " + text.substr(open + 1, close - open - 1) + " q" + text.substr(q + 3, 1));
        } else if (text == "Received DISCONNECT from " + client) {
            events.push_back("DISCONNECT");
        } else if (text == "Client " + client + " closed its connection.") {
            events.push_back("link closed");
        } else if (text == "Client " + client + " already connected, closing old connection.") {
            events.push_back("taken over");
        }
    }
    return events;
}

inline std::vector<std::string> brokerEvents(const MosquittoBroker &broker, const std::string &client)
{
    return brokerEvents(broker.log(), client);
}

inline std::size_t countOf(const std::vector<std::string> &events, const std::string &event)
{
    return std::size_t(std::count(events.begin(), events.end(), event));
}

/// The broker's view of the online sequence of user `jid`: each receive
/// topic unsubscribed and subscribed again, the room-list request, the
/// APP_STARTUP presence.
inline std::vector<std::string> onlineSequence(const std::string &jid, const std::string &server = kServer)
{
    std::vector<std::string> events;
    for (const char *family : { "m/i/", "s/g/i/", "s/g/c/", "s/c/c/", "s/c/i/", "s/f/c/", "s/f/i/", "s/r/c/",
                                "s/r/i/", "s/h/i/" }) {
        events.push_back("unsubscribe " + std::string(family) + jid + "/#");
        events.push_back("subscribe " + std::string(family) + jid + "/# q2");
    }
    events.push_back("unsubscribe m/ntc/#");
    events.push_back("subscribe m/ntc/# q2");
    events.push_back("publish s/g/c/" + server + "/f q2");
    events.push_back("publish m/i/" + server + "/d q2");
    return events;
}

/// Waits until the application has heard `n` connects and the broker has
/// processed the n-th APP_STARTUP of client `clientId` (so its
/// subscriptions, sent before, are in force).
inline bool waitOnline(RecordingApp &app, const MosquittoBroker &broker, const std::string &clientId, int n = 1,
                       const std::string &server = kServer)
{
    const std::string startup = "publish m/i/" + server + "/d q2";
    return app.waitFor([&](const AppState &s) { return s.connected >= n; }) &&
           eventually([&] { return countOf(brokerEvents(broker, clientId), startup) >= std::size_t(n); });
}

// --- a fixture -----------------------------------------------------------

/// A fresh broker with a wire observer, and alice (device dev-a) and bob
/// (dev-b) logged in at the levels given and online when a test starts.
/// `App` is both users' application.
template <class App = RecordingApp>
class TwoUsers : public ::testing::Test {
protected:
    explicit TwoUsers(int aliceLevel = 5, int bobLevel = 5) : aliceLevel_(aliceLevel), bobLevel_(bobLevel) {}

    void SetUp() override
    {
        ASSERT_TRUE(broker.start()) << broker.log();
        ASSERT_TRUE(wire.start(broker));
        ASSERT_EQ(login(alice, broker, "alice", aliceLevel_), 1);
        ASSERT_EQ(login(bob, broker, "bob", bobLevel_), 1);
        ASSERT_TRUE(waitOnline(aliceApp, broker, "alice@im.test@dev-a")) << broker.log();
        ASSERT_TRUE(waitOnline(bobApp, broker, "bob@im.test@dev-b")) << broker.log();
    }

    /// The body of the one envelope on `topic` (waited for), checked as a
    /// system request from `from` to `to`.
    std::string only(const std::string &topic, const char *from, const char *to)
    {
        EXPECT_TRUE(wire.waitForCount(topic, 1)) << topic;
        const std::vector<Envelope> all = wire.envelopes(topic);
        if (all.size() != 1) {
            ADD_FAILURE() << topic << ": " << all.size() << " messages";
            return std::string();
        }
        expectSystemEnvelope(all[0], from, to);
        return all[0].body;
    }

    MosquittoBroker broker{ brokerOptions() };
    WireObserver wire;
    App aliceApp, bobApp;
    Message_lib alice{ &aliceApp, nullptr, "dev-a", "Alice Desk" };
    Message_lib bob{ &bobApp, nullptr, "dev-b", "Bob Desk" };

private:
    const int aliceLevel_;
    const int bobLevel_;
};

} // namespace kit

#endif // ENGINETESTKIT_H
