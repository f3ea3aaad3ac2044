#include "pushbackoff.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;

TEST(PushBackoff, DoublesUpToTheMaximumWithinHalfToFullOfEachStep)
{
    PushBackoff backoff(milliseconds(100), milliseconds(1000));
    const long long steps[] = {100, 200, 400, 800, 1000, 1000};
    for (int round = 0; round < 50; ++round) {
        for (long long step : steps) {
            const long long delay = backoff.next().count();
            EXPECT_GE(delay, step / 2);
            EXPECT_LE(delay, step);
        }
        backoff.reset();
    }
}

TEST(PushBackoff, DelaysAreSpreadOut)
{
    PushBackoff backoff(milliseconds(1000), milliseconds(1000));
    long long low = 1000, high = 0;
    for (int i = 0; i < 200; ++i) {
        const long long delay = backoff.next().count();
        low = std::min(low, delay);
        high = std::max(high, delay);
    }
    EXPECT_LT(low, 600);
    EXPECT_GT(high, 900);
}

} // namespace
