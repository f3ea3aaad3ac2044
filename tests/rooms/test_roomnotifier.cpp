// The pool that runs room notifications: bounded threads and queue without
// losing work, what happens when no thread can be started, and finishing.

#include "roomnotifier.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

// Starts threads until `allowed` have been started, then fails as an
// exhausted system does.
RoomNotifier::ThreadStarter failingAfter(int allowed, std::atomic<int> &attempts)
{
    return [allowed, &attempts](std::function<void()> body) {
        if (attempts++ >= allowed)
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        return std::thread(std::move(body));
    };
}

} // namespace

TEST(RoomNotifier, ABurstRunsWholeOnAtMostTheBoundOfThreads)
{
    constexpr int kWork = 3000;
    std::atomic<int> done{ 0 }, running{ 0 }, mostAtOnce{ 0 };
    RoomNotifier notifier(3, 8); // a short queue: posting has to wait for room
    for (int i = 0; i < kWork; ++i)
        notifier.post([&] {
            const int now = ++running;
            int seen = mostAtOnce;
            while (now > seen && !mostAtOnce.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::sleep_for(std::chrono::microseconds(50));
            --running;
            ++done;
        });
    notifier.finish();
    EXPECT_EQ(done.load(), kWork);
    EXPECT_LE(mostAtOnce.load(), 3);
    EXPECT_LE(notifier.peakThreadCount(), 3u);
    EXPECT_EQ(notifier.threadCount(), 0u);

    notifier.post([&] { ++done; }); // usable again after finishing
    notifier.finish();
    EXPECT_EQ(done.load(), kWork + 1);
}

TEST(RoomNotifier, WithoutAnyThreadWorkRunsOnThePostingThread)
{
    std::atomic<int> attempts{ 0 };
    RoomNotifier notifier(4, 16, failingAfter(0, attempts));
    std::thread::id ranOn;
    notifier.post([&] { ranOn = std::this_thread::get_id(); });
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_EQ(notifier.threadCount(), 0u);
}

TEST(RoomNotifier, WhenMoreThreadsCannotStartTheRunningOnesTakeTheWork)
{
    std::atomic<int> attempts{ 0 }, offPoster{ 0 };
    const std::thread::id poster = std::this_thread::get_id();
    std::atomic<bool> gate{ false };
    RoomNotifier notifier(4, 16, failingAfter(1, attempts));
    for (int i = 0; i < 200; ++i) {
        notifier.post([&] {
            while (!gate)
                std::this_thread::yield();
            offPoster += std::this_thread::get_id() != poster ? 1 : 0;
        });
        gate = i > 0; // the first worker is held until a second start was tried
    }
    notifier.finish();
    EXPECT_EQ(offPoster.load(), 200);
    EXPECT_EQ(notifier.peakThreadCount(), 1u);
    EXPECT_EQ(attempts.load(), 2); // one failure, then no retry until finish()
}

TEST(RoomNotifier, ThrowingWorkAndFinishingFromInsideWorkLeaveThePoolRunning)
{
    std::atomic<int> done{ 0 };
    RoomNotifier notifier(1, 16);
    notifier.post([] { throw std::runtime_error("callback failed"); });
    notifier.post([&] {
        notifier.finish(); // a callback logging out: must not wait for itself
        ++done;
    });
    notifier.post([&] { ++done; });
    notifier.finish();
    EXPECT_EQ(done.load(), 2);
    EXPECT_EQ(notifier.threadCount(), 0u);
}
