// End to end: every command built with setSysProtocol + fromText is sent
// through a real broker by one PushClient, received by another and dispatched
// to the right handler with its own envelope (the fields themselves are
// checked in process by test_dispatch).

#include "dispatchcases.h"
#include "mosquittobroker.h"
#include "mqttmessage.h"
#include "pushclient.h"
#include "recordingcallback.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace {

constexpr const char *kUser = "bob@im.test";
constexpr const char *kReadyTopic = "test/ready";
constexpr const char *kEndTopic = "test/end";

// Receives like the engine: every message but the test's own markers is
// parsed and dispatched to the recording handler set.
class DispatchingReceiver : public PushEventReciever {
public:
    explicit DispatchingReceiver(RecordingCallback &handlers) : handlers_(handlers) {}
    PushClient *client = nullptr;

    void messgeRecievedMore(int, char *topic, void *payload, int, int, bool) override
    {
        const std::string t = topic;
        if (t == kReadyTopic || t == kEndTopic) {
            std::lock_guard<std::mutex> lock(mutex_);
            (t == kReadyTopic ? ready_ : ended_) = true;
            changed_.notify_all();
            return;
        }
        ++delivered;
        MQTTMessage in(client, true);
        if (in.fromTopic(topic, static_cast<const char *>(payload)) &&
            (in.protocol.code == MESSAGE || in.protocol.code == SYSTEM))
            in.startMatchSys(&handlers_);
    }

    void connectStatus(bool connected) override
    {
        if (!connected)
            return;
        // Subscribes from inside the callback, as the engine does; the marker
        // comes back once the subscription is in place.
        char all[] = "#";
        client->subscribe(all);
        client->publish(kReadyTopic, "", 2, false);
    }

    bool wait(bool DispatchingReceiver::*flag)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 10s, [&] { return this->*flag; });
    }

    std::atomic<int> delivered{ 0 };
    bool ready_ = false;
    bool ended_ = false;

private:
    RecordingCallback &handlers_;
    std::mutex mutex_;
    std::condition_variable changed_;
};

class WireDispatch : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(broker_.start()) << broker_.log();
        receiver_.client = &bob_;
        bob_.setEventRecv(&receiver_);
        bob_.start_connect(broker_.host(), broker_.port(), 60);
        ASSERT_TRUE(receiver_.wait(&DispatchingReceiver::ready_)) << broker_.log();
        alice_.start_connect(broker_.host(), broker_.port(), 60);
    }

    MosquittoBroker broker_;
    RecordingCallback handlers_;
    DispatchingReceiver receiver_{ handlers_ };
    char bobId_[32] = "bob@im.test@device-1";
    char aliceId_[32] = "alice@im.test@device-1";
    PushClient bob_{ bobId_ };
    PushClient alice_{ aliceId_ };
};

} // namespace

TEST_F(WireDispatch, EveryCommandReachesItsHandlerExactlyOnce)
{
    const QString body = QString::fromUtf8("你好, Bob — \"quoted\" & <tagged>\n第二行");
    std::vector<int> expected;
    std::vector<std::string> topics;
    int i = 0;
    for (const DispatchCase &c : dispatchCases()) {
        MQTTMessage out(&alice_, true);
        const bool built = c.subs.size() == 2 ? out.setSysProtocol(kUser, 3, c.family, c.subs[0], c.subs[1])
                                              : out.setSysProtocol(kUser, 2, c.family, c.subs[0]);
        ASSERT_TRUE(built);
        ASSERT_TRUE(out.fromText(QStringLiteral("alice@im.test"), QString::fromUtf8(kUser), body,
                                 MediaInfo::MESSAGE_TYPE_CHAT, 40 + i, BODY_TYPE_NOTICE,
                                 QStringLiteral("key-%1").arg(i), QStringLiteral("stamp-%1").arg(i)));
        ASSERT_TRUE(out.send(2)) << out.topicText;
        if (c.slot >= 0)
            expected.push_back(c.slot);
        topics.push_back(out.topicText);
        ++i;
    }
    ASSERT_EQ(alice_.publish(kEndTopic, "", 2, false), 0);
    ASSERT_TRUE(receiver_.wait(&DispatchingReceiver::ended_));

    EXPECT_EQ(receiver_.delivered.load(), int(dispatchCases().size()));
    const std::vector<DispatchRecord> records = handlers_.records();
    std::vector<int> slots;
    for (const DispatchRecord &r : records)
        slots.push_back(r.slot);
    EXPECT_EQ(slots, expected); // in order, each once, unmatched chains nowhere

    int k = 0;
    for (const DispatchRecord &r : records) {
        while (dispatchCases()[k].slot < 0)
            ++k; // skip the indices of the unmatched cases
        SCOPED_TRACE(r.topic);
        EXPECT_EQ(r.topic, topics[k]);
        EXPECT_EQ(r.to, kUser);
        EXPECT_EQ(QString::fromStdString(r.body), body);
        EXPECT_EQ(r.secLevel, 40 + k);
        EXPECT_EQ(r.messageKey, "key-" + std::to_string(k));
        EXPECT_TRUE(r.encrypted);
        ++k;
    }
}
