// Connection life of a PushClient against a real broker: reports, reconnection
// after a broker restart, refused connections, persistent sessions.

#include "mosquittobroker.h"
#include "pushclient.h"
#include "recordingreceiver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kOk = static_cast<int>(PushResult::Ok);
using std::chrono::milliseconds;

TEST(PushConnection, ReportsOnlineAndOfflineReconnectsAndKeepsSessions)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start()) << broker.log();

    // Subscribe and announce presence from inside connectStatus(true), as the
    // engine does; the broker keeps no sessions across its restart.
    RecordingReceiver user, peerSide;
    PushClient* client = nullptr;
    std::atomic<int> onlineSequences{0};
    user.onStatus = [&](bool connected) {
        if (!connected)
            return;
        char room[] = "room/1";
        EXPECT_EQ(client->unsubscribe(room), kOk);
        EXPECT_EQ(client->subscribe(room), kOk);
        EXPECT_EQ(client->publish("presence/user", "online", 2, false), kOk);
        ++onlineSequences;
    };
    auto userClient = makeClient("user", &user);
    client = userClient.get();
    auto peer = makeClient("peer", &peerSide);
    ASSERT_EQ(peer->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(peerSide.waitForStatuses({true}));
    ASSERT_TRUE(subscribeConfirmed(*peer, peerSide, *peer, "presence/#", "presence/probe"));

    ASSERT_EQ(client->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(user.waitForStatuses({true})) << broker.log();
    EXPECT_EQ(client->state(), PushClient::State::Online);
    ASSERT_TRUE(eventually([&] { return peerSide.payloads("presence/user").size() == 1; }));

    broker.stop();
    ASSERT_TRUE(user.waitForStatuses({true, false}));
    EXPECT_EQ(client->state(), PushClient::State::Connecting);

    ASSERT_TRUE(broker.start()) << broker.log();
    ASSERT_TRUE(user.waitForStatuses({true, false, true})) << broker.log();
    EXPECT_EQ(onlineSequences.load(), 2);
    // The room subscription made inside the callback is in force again.
    ASSERT_TRUE(peerSide.waitForStatuses({true, false, true}));
    ASSERT_TRUE(subscribeConfirmed(*client, user, *peer, "room/1", "room/1"));

    // Messages sent while a client id is away arrive when it returns: its
    // session brings them without a subscribe call.
    RecordingReceiver first, second;
    auto away = makeClient("traveller", &first);
    ASSERT_EQ(away->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(first.waitForStatuses({true}));
    ASSERT_TRUE(subscribeConfirmed(*away, first, *peer, "inbox/traveller", "inbox/traveller"));
    away.reset(); // clean disconnect; the session stays with the broker
    const std::vector<std::string> sent = {"one", "two", "three", "four"};
    for (const std::string& text : sent)
        ASSERT_EQ(peer->publish("inbox/traveller", text.c_str(), 2, false), kOk);
    ASSERT_EQ(peer->publish("inbox/traveller", "qos1", 1, false), kOk);
    ASSERT_TRUE(eventually([&] { return peer->pendingCount() == 0; })); // broker has them all
    auto back = makeClient("traveller", &second);
    ASSERT_EQ(back->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(second.waitForMessages(sent.size() + 1)) << broker.log();
    EXPECT_EQ(second.payloadsAtQos(2), sent);
    EXPECT_EQ(second.payloadsAtQos(1), std::vector<std::string>{"qos1"});
}

TEST(PushConnection, AFailedFirstAttemptIsReportedOnceAndRetried)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start()) << broker.log();
    broker.stop(); // the port is known, nobody listens

    RecordingReceiver user;
    auto client = makeClient("user", &user);
    ASSERT_EQ(client->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(user.waitForStatuses({false}));
    // Several attempts fit in this time (20 to 200 ms apart); none is reported.
    std::this_thread::sleep_for(milliseconds(600));
    EXPECT_EQ(user.statuses(), std::vector<bool>{false});
    EXPECT_EQ(client->state(), PushClient::State::Connecting);

    ASSERT_TRUE(broker.start());
    EXPECT_TRUE(user.waitForStatuses({false, true})) << broker.log();
}

TEST(PushConnection, ARefusedConnectionIsReportedOnceAndNotRetried)
{
    MosquittoBroker::Options options;
    options.allowAnonymous = false;
    options.users = {{"alice", "secret"}};
    MosquittoBroker broker(options);
    ASSERT_TRUE(broker.start()) << broker.log();
    const auto refusals = [&] { return countOf(broker.log(), "not authorised"); };

    RecordingReceiver user;
    auto client = makeClient("anonymous", &user);
    ASSERT_EQ(client->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(user.waitForStatuses({false}));
    EXPECT_EQ(client->state(), PushClient::State::Refused);
    // With retry delays of 20 to 200 ms, a retrying client would have come
    // back several times by now.
    std::this_thread::sleep_for(milliseconds(600));
    EXPECT_EQ(refusals(), 1u) << broker.log();
    EXPECT_EQ(user.statuses(), std::vector<bool>{false});

    // Requests are still kept for a later connection.
    EXPECT_EQ(client->publish("t", "later", 2, false), kOk);
    EXPECT_EQ(client->pendingCount(), 1u);

    // Asking again makes one more attempt.
    ASSERT_EQ(client->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(eventually([&] { return refusals() == 2; })) << broker.log();
    EXPECT_TRUE(eventually([&] { return client->state() == PushClient::State::Refused; }));
    EXPECT_EQ(user.statuses(), std::vector<bool>{false});
}

} // namespace
