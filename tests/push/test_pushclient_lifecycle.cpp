// Ending a PushClient: prompt destruction in every link state, no callback
// after the destructor, destruction from its own callback, pending QoS 2
// publications flushed, and the will sent only when the link dies uncleanly.

#include "mosquittobroker.h"
#include "pushclient.h"
#include "recordingreceiver.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace {

constexpr int kOk = static_cast<int>(PushResult::Ok);
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

milliseconds timeToDestroy(std::unique_ptr<PushClient>& client)
{
    const auto start = Clock::now();
    client.reset();
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

// A loopback port whose listener never accepts: the kernel completes TCP
// handshakes, nobody ever answers CONNECT.
class SilentServer
{
public:
    SilentServer()
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(fd_, 8);
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~SilentServer() { ::close(fd_); }
    int port() const { return port_; }

private:
    int fd_ = -1;
    int port_ = 0;
};

TEST(PushLifecycle, DestructionIsPromptWhateverTheLinkIsDoing)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    broker.stop();
    RecordingReceiver receiver;

    // Waiting out a long reconnection delay, with an outbox to throw away.
    PushClientOptions patient;
    patient.reconnectDelayMin = std::chrono::seconds(30);
    auto waiting = makeClient("waiting", &receiver, patient);
    ASSERT_EQ(waiting->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(receiver.waitForStatuses({false}));
    ASSERT_EQ(waiting->publish("t", "never sent", 2, false), kOk);
    EXPECT_LT(timeToDestroy(waiting).count(), 500);

    // Retrying as fast as it can.
    PushClientOptions eager;
    eager.reconnectDelayMin = milliseconds(1);
    eager.reconnectDelayMax = milliseconds(2);
    auto retrying = makeClient("retrying", &receiver, eager);
    ASSERT_EQ(retrying->start_connect(broker.host(), broker.port(), 60), kOk);
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_LT(timeToDestroy(retrying).count(), 500);

    // Connected at TCP level, CONNACK never coming.
    SilentServer silent;
    auto stuck = makeClient("stuck", &receiver);
    ASSERT_EQ(stuck->start_connect("127.0.0.1", silent.port(), 60), kOk);
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(stuck->state(), PushClient::State::Connecting);
    EXPECT_LT(timeToDestroy(stuck).count(), 1500);
}

// Destroyed while messages keep arriving: no callback afterwards, and a clean
// DISCONNECT (which cancels a will).
TEST(PushLifecycle, NoCallbackRunsAfterTheDestructorReturnsAndItDisconnects)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    RecordingReceiver senderSide, sink;
    auto sender = makeClient("sender", &senderSide);
    ASSERT_EQ(sender->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(senderSide.waitForStatuses({true}));

    std::atomic<bool> destroyed{false};
    std::atomic<int> late{0};
    sink.onMessage = [&](const ReceivedMessage&) {
        std::this_thread::sleep_for(std::chrono::microseconds(200)); // be mid-callback often
        if (destroyed)
            ++late;
    };
    sink.onStatus = [&](bool) {
        if (destroyed)
            ++late;
    };
    auto receiver = makeClient("receiver", &sink);
    ASSERT_EQ(receiver->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(sink.waitForStatuses({true}));
    ASSERT_TRUE(subscribeConfirmed(*receiver, sink, *sender, "flood", "flood"));

    std::atomic<bool> stop{false};
    std::thread flood([&] {
        for (int i = 0; !stop; ++i) {
            sender->publish("flood", "payload", i % 3, false);
            if (i % 16 == 0)
                std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    EXPECT_TRUE(sink.waitForMessages(200));
    receiver.reset();
    destroyed = true;
    std::this_thread::sleep_for(milliseconds(300)); // the flood goes on
    stop = true;
    flood.join();
    EXPECT_EQ(late.load(), 0);
    ASSERT_TRUE(eventually([&] { return broker.log().find("Client receiver disconnected.") != std::string::npos; }))
        << broker.log();
}

TEST(PushLifecycle, AClientMayBeDestroyedFromItsOwnCallback)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    RecordingReceiver watcherSide, victimSide;
    auto watcher = makeClient("watcher", &watcherSide);
    ASSERT_EQ(watcher->start_connect(broker.host(), broker.port(), 60), kOk);

    std::unique_ptr<PushClient> victim = makeClient("victim", &victimSide);
    std::atomic<int> callbacksAfter{0};
    std::atomic<bool> gone{false};
    victimSide.onMessage = [&](const ReceivedMessage&) {
        if (gone) {
            ++callbacksAfter;
            return;
        }
        victim.reset(); // on the client's own network thread
        gone = true;
    };
    ASSERT_EQ(victim->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(victimSide.waitForStatuses({true}));
    char filter[] = "to/victim";
    ASSERT_EQ(victim->subscribe(filter), kOk);
    ASSERT_TRUE(eventually([&] {
        for (int i = 0; i < 20 && !gone; ++i)
            watcher->publish("to/victim", "hello", 1, false);
        return gone.load();
    }));

    // The detached network thread finishes with a clean DISCONNECT.
    ASSERT_TRUE(eventually([&] { return broker.log().find("Client victim disconnected.") != std::string::npos; }))
        << broker.log();
    for (int i = 0; i < 20; ++i)
        watcher->publish("to/victim", "after", 1, false);
    ASSERT_TRUE(eventually([&] { return watcher->pendingCount() == 0; }));
    EXPECT_EQ(callbacksAfter.load(), 0);
}

TEST(PushLifecycle, PendingPublicationsAreFlushedBeforeDisconnecting)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    RecordingReceiver sink, source;
    auto subscriber = makeClient("subscriber", &sink);
    ASSERT_EQ(subscriber->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(sink.waitForStatuses({true}));
    ASSERT_TRUE(subscribeConfirmed(*subscriber, sink, *subscriber, "last/#", "last/probe"));

    auto publisher = makeClient("publisher", &source);
    ASSERT_EQ(publisher->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(source.waitForStatuses({true}));
    constexpr int kCount = 300;
    for (int i = 0; i < kCount; ++i)
        ASSERT_EQ(publisher->publish("last/words", std::to_string(i).c_str(), 2, false), kOk);
    ASSERT_EQ(publisher->publish("last/bye", "bye", 0, false), kOk); // like a quit presence
    publisher.reset();

    EXPECT_TRUE(eventually([&] { return sink.payloads("last/words").size() == kCount; }))
        << sink.payloads("last/words").size();
    EXPECT_TRUE(sink.waitForPayload("bye"));
}

TEST(PushLifecycle, TheWillIsPublishedWhenTheProcessIsKilled)
{
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    RecordingReceiver watcherSide;
    auto watcher = makeClient("watcher", &watcherSide);
    ASSERT_EQ(watcher->start_connect(broker.host(), broker.port(), 60), kOk);
    ASSERT_TRUE(watcherSide.waitForStatuses({true}));
    ASSERT_TRUE(subscribeConfirmed(*watcher, watcherSide, *watcher, "will/#", "will/probe"));

    // A process killed outright: the broker sees the socket close.
    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    const std::string port = std::to_string(broker.port());
    const char* argv[] = {PUSH_WILL_HELPER, broker.host(), port.c_str(), "doomed", "will/doomed", "doomed died",
                          nullptr};
    pid_t pid = -1;
    ASSERT_EQ(posix_spawn(&pid, PUSH_WILL_HELPER, &actions, nullptr, const_cast<char**>(argv), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    char line[16] = {};
    const ssize_t got = ::read(out[0], line, sizeof line - 1); // blocks until "online"
    ::close(out[0]);
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    ASSERT_GT(got, 0);
    EXPECT_EQ(std::string(line), "online\n");

    EXPECT_TRUE(watcherSide.waitForPayload("doomed died")) << broker.log();
}

} // namespace
