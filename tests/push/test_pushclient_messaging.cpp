// Messages between two PushClients through a real broker: payload forms,
// QoS, retain, argument checks, and requests made from inside callbacks.

#include "mosquittobroker.h"
#include "pushclient.h"
#include "recordingreceiver.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

constexpr int kOk = static_cast<int>(PushResult::Ok);

class PushMessagingTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(broker.start()) << broker.log(); }

    // Connects a client and waits for its CONNACK.
    std::unique_ptr<PushClient> online(const std::string& id, RecordingReceiver& receiver)
    {
        auto client = makeClient(id, &receiver);
        EXPECT_EQ(client->start_connect(broker.host(), broker.port(), 60), kOk);
        EXPECT_TRUE(receiver.waitForStatuses({true})) << broker.log();
        return client;
    }

    MosquittoBroker broker;
};

TEST_F(PushMessagingTest, PayloadsArriveIntactInOrderWithTheirQosAndNeverRetained)
{
    RecordingReceiver sink, source, late;
    auto receiver = online("receiver", sink);
    auto sender = online("sender", source);
    ASSERT_TRUE(subscribeConfirmed(*receiver, sink, *sender, "chat/#", "chat/probe"));

    std::string allBytes;
    for (int c = 1; c < 256; ++c)
        allBytes.push_back(static_cast<char>(c));
    const std::vector<std::string> payloads = {
        "", "x", "h\xC3\xA9llo \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x99\x82", // UTF-8: 2, 3 and 4-byte forms
        std::string(300, 'a'), allBytes, std::string(70000, 'z'),
    };
    for (const std::string& payload : payloads)
        ASSERT_EQ(sender->publish("chat/room/1", payload.c_str(), 2, true), kOk);
    ASSERT_TRUE(eventually([&] { return sink.payloads("chat/room/1").size() == payloads.size(); }));
    EXPECT_EQ(sink.payloads("chat/room/1"), payloads);
    for (int qos = 0; qos <= 1; ++qos)
        ASSERT_EQ(sender->publish("chat/qos", std::to_string(qos).c_str(), qos, true), kOk);
    ASSERT_TRUE(eventually([&] { return sink.payloads("chat/qos").size() == 2; }));
    EXPECT_EQ(sink.payloadsAtQos(0), std::vector<std::string>{"0"});
    EXPECT_EQ(sink.payloadsAtQos(1), std::vector<std::string>{"1"});
    for (const ReceivedMessage& message : sink.messages()) {
        EXPECT_TRUE(message.nulTerminated) << message.topic;
        EXPECT_FALSE(message.retain) << message.topic;
        if (message.topic == "chat/room/1") {
            EXPECT_EQ(message.qos, 2);
        }
    }

    // A later subscriber gets nothing retained: the marker published after its
    // subscription arrives first and alone.
    auto newcomer = online("newcomer", late);
    ASSERT_TRUE(subscribeConfirmed(*newcomer, late, *sender, "chat/#", "chat/marker"));
    for (const ReceivedMessage& message : late.messages())
        EXPECT_EQ(message.topic, "chat/marker");
}

TEST_F(PushMessagingTest, InvalidRequestsAreRefusedAndNothingIsQueued)
{
    constexpr int kInvalid = static_cast<int>(PushResult::InvalidArgument);
    RecordingReceiver receiver;
    auto client = makeClient("checker", &receiver);
    char badFilter[] = "a/#/b";
    char goodFilter[] = "a/+/c";
    EXPECT_EQ(client->publish("a/#", "x", 2, false), kInvalid);
    EXPECT_EQ(client->publish("a/+", "x", 2, false), kInvalid);
    EXPECT_EQ(client->publish("", "x", 2, false), kInvalid);
    EXPECT_EQ(client->publish(nullptr, "x", 2, false), kInvalid);
    EXPECT_EQ(client->publish("a/\xC3", "x", 2, false), kInvalid); // truncated UTF-8
    EXPECT_EQ(client->publish("a/b", "x", 3, false), kInvalid);
    EXPECT_EQ(client->publish("a/b", "x", -1, false), kInvalid);
    EXPECT_EQ(client->subscribe(badFilter), kInvalid);
    EXPECT_EQ(client->subscribe(nullptr), kInvalid);
    EXPECT_EQ(client->will_set("w/#", nullptr, 2, false), kInvalid);
    EXPECT_EQ(client->start_connect(broker.host(), 0, 60), kInvalid);
    EXPECT_EQ(client->start_connect(broker.host(), broker.port(), -1), kInvalid);
    EXPECT_EQ(client->start_connect(nullptr, broker.port(), 60), kInvalid);
    EXPECT_EQ(client->pendingCount(), 0u);
    EXPECT_EQ(client->state(), PushClient::State::Idle);
    EXPECT_EQ(client->subscribe(goodFilter), kOk);
    EXPECT_EQ(client->pendingCount(), 1u);

    // Without a usable client id there is no session to speak of.
    auto anonymous = makeClient("", &receiver);
    EXPECT_EQ(anonymous->publish("a/b", "x", 2, false), kInvalid);
    EXPECT_EQ(anonymous->start_connect(broker.host(), broker.port(), 60), kInvalid);
}

TEST_F(PushMessagingTest, RequestsMadeBeforeConnectingGoOutInOrder)
{
    RecordingReceiver receiver;
    auto client = makeClient("early", &receiver);
    char filter[] = "early/#";
    ASSERT_EQ(client->subscribe(filter), kOk);
    ASSERT_EQ(client->publish("early/1", "first", 2, false), kOk);
    ASSERT_EQ(client->publish("early/2", "second", 2, false), kOk);
    ASSERT_EQ(client->publish("early/3", "at least once", 1, false), kOk);
    EXPECT_EQ(client->publish("early/4", "dropped", 0, false), static_cast<int>(PushResult::NotConnected));
    EXPECT_EQ(client->pendingCount(), 4u);

    ASSERT_EQ(client->start_connect(broker.host(), broker.port(), 60), kOk);
    // Its own subscription went out first, so it hears its own messages (MQTT
    // keeps order within one QoS level only).
    ASSERT_TRUE(receiver.waitForMessages(3)) << broker.log();
    EXPECT_EQ(receiver.payloadsAtQos(1), std::vector<std::string>{"at least once"});
    EXPECT_EQ(receiver.payloadsAtQos(2), (std::vector<std::string>{"first", "second"}));
    EXPECT_TRUE(eventually([&] { return client->pendingCount() == 0; }));
}

TEST_F(PushMessagingTest, CallbacksMayPublishAndSubscribe)
{
    // The echo client subscribes from inside connectStatus, answers every
    // request from inside messgeRecievedMore, and subscribes from there too.
    RecordingReceiver echoSide, testSide;
    PushClient* echo = nullptr;
    echoSide.onStatus = [&](bool connected) {
        if (!connected)
            return;
        char in[] = "echo/in";
        EXPECT_EQ(echo->subscribe(in), kOk);
        EXPECT_EQ(echo->publish("echo/ready", "ready", 2, false), kOk);
    };
    echoSide.onMessage = [&](const ReceivedMessage& message) {
        if (message.topic != "echo/in")
            return;
        EXPECT_EQ(echo->publish("echo/out", message.payload.c_str(), 2, false), kOk);
        if (message.payload == "0") {
            char late[] = "echo/late";
            EXPECT_EQ(echo->subscribe(late), kOk);
        }
    };

    auto tester = online("tester", testSide);
    ASSERT_TRUE(subscribeConfirmed(*tester, testSide, *tester, "echo/+", "echo/probe"));
    auto echoClient = makeClient("echo", &echoSide);
    echo = echoClient.get();
    ASSERT_EQ(echo->start_connect(broker.host(), broker.port(), 60), kOk);
    // "ready" is published after the echo's subscription was requested.
    ASSERT_TRUE(eventually([&] { return !testSide.payloads("echo/ready").empty(); }));

    constexpr int kRequests = 50;
    for (int i = 0; i < kRequests; ++i)
        ASSERT_EQ(tester->publish("echo/in", std::to_string(i).c_str(), 2, false), kOk);
    ASSERT_TRUE(eventually([&] { return testSide.payloads("echo/out").size() == kRequests; }));
    const auto answers = testSide.payloads("echo/out");
    for (int i = 0; i < kRequests; ++i)
        EXPECT_EQ(answers[i], std::to_string(i));

    ASSERT_EQ(tester->publish("echo/late", "late", 2, false), kOk);
    EXPECT_TRUE(echoSide.waitForPayload("late"));
}

} // namespace
