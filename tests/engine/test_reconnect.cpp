// When links die and brokers restart: the will, the online sequence run
// again after a reconnection, and QoS 2 messages for a user who was away
// delivered when the user comes back.

#include "enginetestkit.h"

#include <QProcess>

#include <gtest/gtest.h>

using namespace kit;

namespace {

// Starts a user's façade in a separate process and waits until it is online.
bool startPeer(QProcess &peer, const MosquittoBroker &broker, const char *user, const char *device)
{
    peer.start(QStringLiteral(ENGINE_PEER), { broker.host(), QString::number(broker.port()), user, kDomain, device });
    while (peer.waitForStarted() && !peer.canReadLine()) {
        if (!peer.waitForReadyRead(int(kTimeout.count())))
            return false;
    }
    const std::string id = std::string(user) + "@" + kDomain + "@" + device;
    return peer.readLine() == "online\n" && eventually([&] {
               return countOf(brokerEvents(broker, id), "publish m/i/server@im.test/d q2") == 1;
           });
}

// Ends it without a logout.
void killPeer(QProcess &peer)
{
    peer.kill(); // SIGKILL
    peer.waitForFinished();
}

std::vector<QString> bodies(const std::vector<Delivery> &messages)
{
    std::vector<QString> out;
    for (const Delivery &d : messages)
        out.push_back(d.body);
    return out;
}

int say(Message_lib &from, const char *to, const char *text)
{
    return from.sendTextMessageTo("", QString::fromUtf8(to), 5, QString::fromUtf8(text), BODY_TYPE_DEFAULT, false,
                                  "", "");
}

} // namespace

TEST(EngineReconnect, WillThenQueuedMessagesThenRestartWithoutSessions)
{
    MosquittoBroker broker(brokerOptions());
    ASSERT_TRUE(broker.start()) << broker.log();
    WireObserver wire;
    ASSERT_TRUE(wire.start(broker));
    RecordingApp aliceApp, bobApp;
    Message_lib alice(&aliceApp, nullptr, "dev-a", "Alice Desk");
    ASSERT_EQ(login(alice, broker, "alice", 5), 1);
    ASSERT_TRUE(waitOnline(aliceApp, broker, "alice@im.test@dev-a")) << broker.log();

    // Bob's process dies without a logout: the broker publishes his will.
    QProcess peer;
    ASSERT_TRUE(startPeer(peer, broker, "bob", "dev-b")) << broker.log();
    killPeer(peer);
    ASSERT_TRUE(wire.waitForEnvelope("m/i/server@im.test/d", "NETWORK_DISCONNECTED")) << broker.log();
    const Envelope will = wire.envelopes("m/i/server@im.test/d", "NETWORK_DISCONNECTED")[0];
    expectSystemEnvelope(will, "bob@im.test", "server@im.test");
    EXPECT_EQ(will.body, R"({"device_id":"dev-b","device_name":"peer-device","text":"NETWORK_DISCONNECTED","type":0})");
    const std::vector<std::string> bobEvents = brokerEvents(broker, "bob@im.test@dev-b");
    EXPECT_EQ(countOf(bobEvents, "link closed"), 1u);
    EXPECT_EQ(countOf(bobEvents, "DISCONNECT"), 0u);

    // While he is away, his session keeps his subscriptions: QoS 2
    // messages wait for him and arrive, in order, when he logs in again
    // from the same device.
    EXPECT_EQ(say(alice, "bob", "while away 1"), 1);
    EXPECT_EQ(say(alice, "bob", "while away 2"), 1);
    ASSERT_TRUE(wire.waitForCount("m/i/bob@im.test/n", 2));
    Message_lib bob(&bobApp, nullptr, "dev-b", "Bob Desk");
    ASSERT_EQ(login(bob, broker, "bob", 5), 1);
    ASSERT_TRUE(bobApp.waitFor([](const AppState &s) { return s.connected == 1; }));
    ASSERT_TRUE(bobApp.waitForMessages(2));
    EXPECT_EQ(bodies(bobApp.state().messages), (std::vector<QString>{ "while away 1", "while away 2" }));

    // A broker that forgets everything: both façades hear the link go,
    // then run the whole online sequence again by themselves, which is
    // what makes them reachable again.
    broker.stop();
    ASSERT_TRUE(aliceApp.waitFor([](const AppState &s) { return s.disconnected == 1; }));
    ASSERT_TRUE(bobApp.waitFor([](const AppState &s) { return s.disconnected == 1; }));
    const std::size_t aliceBefore = brokerEvents(broker, "alice@im.test@dev-a").size();
    ASSERT_TRUE(broker.start()) << broker.log();
    ASSERT_TRUE(waitOnline(aliceApp, broker, "alice@im.test@dev-a", 2)) << broker.log();
    ASSERT_TRUE(bobApp.waitFor([](const AppState &s) { return s.connected == 2; }));
    ASSERT_TRUE(eventually([&] { // the peer's APP_STARTUP, then two of this façade
        return countOf(brokerEvents(broker, "bob@im.test@dev-b"), "publish m/i/server@im.test/d q2") == 3;
    })) << broker.log();
    const std::vector<std::string> aliceAfter = brokerEvents(broker, "alice@im.test@dev-a");
    std::vector<std::string> expected{ "connect (p2, c0, k60)", "will m/i/server@im.test/d q2" };
    for (const std::string &e : onlineSequence("alice@im.test"))
        expected.push_back(e);
    EXPECT_EQ(std::vector<std::string>(aliceAfter.begin() + long(aliceBefore), aliceAfter.end()), expected);

    EXPECT_EQ(say(alice, "bob", "after restart"), 1);
    EXPECT_EQ(say(bob, "alice", "back to you"), 1);
    ASSERT_TRUE(bobApp.waitForMessages(3));
    ASSERT_TRUE(aliceApp.waitForMessages(1));
    EXPECT_EQ(bobApp.state().messages[2].body, "after restart");
    EXPECT_EQ(aliceApp.state().messages[0].body, "back to you");
    EXPECT_EQ(aliceApp.state().connected, 2);
    EXPECT_EQ(aliceApp.state().disconnected, 1);
}

// A broker that keeps sessions across a restart: a message sent while the
// broker is down waits in the sender's outbox, one sent after the restart
// to a user whose process died meanwhile waits in the user's session, and
// both reach the user when he logs in again.
TEST(EngineReconnect, RestartKeepingSessionsDeliversWhatWasSentMeanwhile)
{
    MosquittoBroker broker(brokerOptions(true));
    ASSERT_TRUE(broker.start()) << broker.log();
    RecordingApp aliceApp, bobApp;
    Message_lib alice(&aliceApp, nullptr, "dev-a", "Alice Desk");
    ASSERT_EQ(login(alice, broker, "alice", 5), 1);
    ASSERT_TRUE(waitOnline(aliceApp, broker, "alice@im.test@dev-a")) << broker.log();
    QProcess peer;
    ASSERT_TRUE(startPeer(peer, broker, "bob", "dev-b")) << broker.log();

    broker.stop();
    ASSERT_TRUE(aliceApp.waitFor([](const AppState &s) { return s.disconnected == 1; }));
    killPeer(peer); // no broker to see it go
    EXPECT_EQ(say(alice, "bob", "during the outage"), 1);
    ASSERT_TRUE(broker.start()) << broker.log();

    ASSERT_TRUE(waitOnline(aliceApp, broker, "alice@im.test@dev-a", 2)) << broker.log();
    EXPECT_EQ(say(alice, "bob", "after the restart"), 1);
    ASSERT_TRUE(eventually([&] {
        return countOf(brokerEvents(broker, "alice@im.test@dev-a"), "publish m/i/bob@im.test/n q2") >= 2;
    })) << broker.log();

    Message_lib bob(&bobApp, nullptr, "dev-b", "Bob Desk");
    ASSERT_EQ(login(bob, broker, "bob", 5), 1);
    ASSERT_TRUE(bobApp.waitForMessages(2));
    EXPECT_EQ(bodies(bobApp.state().messages), (std::vector<QString>{ "during the outage", "after the restart" }));
    EXPECT_EQ(aliceApp.state().connected, 2);
}
