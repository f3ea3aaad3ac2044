// The pool that runs room notifications: bounded threads and queue, no lost
// work, no thread at all, throwing work, finishing from inside work.

#include "eventlog.h"
#include "roomnotifier.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <thread>

TEST(RoomNotifier, ABurstRunsWholeOnAtMostTheBound)
{
    std::atomic<int> done{ 0 }, running{ 0 }, most{ 0 };
    RoomNotifier notifier(3, 8); // a short queue: posting waits for room
    for (int i = 0; i < 2000; ++i)
        notifier.post([&] {
            const int now = ++running;
            for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) { }
            std::this_thread::sleep_for(std::chrono::microseconds(50));
            --running;
            ++done;
        });
    notifier.finish();
    EXPECT_EQ(fields(done.load(), notifier.threadCount(), notifier.peakThreadCount() <= 3, most.load() <= 3),
        fields(2000, 0, true, true));
    notifier.post([&] { ++done; }); // usable again
    notifier.finish();
    EXPECT_EQ(done.load(), 2001);
}

TEST(RoomNotifier, NoThreadsFailuresAndFinishingFromInside)
{
    // Threads start until `allowed` have, then fail as an exhausted system does.
    std::atomic<int> attempts{ 0 };
    const auto failingAfter = [&](int allowed) {
        return [allowed, &attempts](std::function<void()> body) {
            if (attempts++ >= allowed)
                throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
            return std::thread(std::move(body));
        };
    };
    {
        RoomNotifier none(4, 16, failingAfter(0)); // no thread: run on the poster
        std::thread::id ranOn;
        std::atomic<bool> finished{ false };
        std::thread waiter;
        none.post([&] { // a finish() meanwhile waits for this work, and no longer
            ranOn = std::this_thread::get_id();
            waiter = std::thread([&] { none.finish(), finished = true; });
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        });
        if (!eventually([&] { return finished.load(); })) {
            ADD_FAILURE() << "finish() missed the end of the work run on the poster";
            std::_Exit(1); // the waiter never returns
        }
        waiter.join();
        EXPECT_EQ(ranOn, std::this_thread::get_id());
    }
    attempts = 0;
    std::atomic<int> offPoster{ 0 };
    const std::thread::id poster = std::this_thread::get_id();
    std::atomic<bool> gate{ false };
    RoomNotifier one(4, 16, failingAfter(1)); // the one running worker takes the work
    for (int i = 0; i < 100; ++i) {
        one.post([&] {
            while (!gate)
                std::this_thread::yield();
            offPoster += std::this_thread::get_id() != poster ? 1 : 0;
        });
        gate = i > 0;
    }
    one.finish();
    EXPECT_EQ(fields(offPoster.load(), one.peakThreadCount(), attempts.load()), fields(100, 1, 2));

    std::atomic<int> done{ 0 };
    RoomNotifier pool(1, 16);
    pool.post([] { throw std::runtime_error("callback failed"); });
    pool.post([&] {
        pool.finish(); // a callback logging out does not wait for itself
        ++done;
    });
    pool.post([&] { ++done; });
    pool.post([&] { // a callback posting into its own full pool does not wait for room
        for (int i = 0; i < 20; ++i)
            pool.post([&] { ++done; });
    });
    pool.finish();
    EXPECT_EQ(fields(done.load(), pool.threadCount()), fields(22, 0));
}
