#include "pushbackoff.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;

// Each delay lies within half to all of its step, the steps doubling up to
// the maximum; the delays are spread over that range.
TEST(PushBackoff, DoublesUpToTheMaximumWithinHalfToFullOfEachStep)
{
    PushBackoff backoff(milliseconds(100), milliseconds(1000));
    const long long steps[] = {100, 200, 400, 800, 1000, 1000, 1000, 1000};
    long long low = 1000, high = 0;
    for (int round = 0; round < 50; ++round) {
        for (long long step : steps) {
            const long long delay = backoff.next().count();
            EXPECT_GE(delay, step / 2);
            EXPECT_LE(delay, step);
            if (step == 1000) {
                low = std::min(low, delay);
                high = std::max(high, delay);
            }
        }
        backoff.reset();
    }
    EXPECT_LT(low, 600);
    EXPECT_GT(high, 900);
}

} // namespace
