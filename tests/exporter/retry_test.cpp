#include "run/retry.h"

#include <gtest/gtest.h>

#include <vector>

using namespace gpu_feed;

/// Lets the driver stay in a state for 200 seconds, and gives those in which `retry` wanted `step`.
static std::vector<int> Tries(RetryStep step, FeedState state, double silentSince, double driverSilence, Retry* retry) {
    FeedGpu gpu;
    gpu.SilentSince = silentSince;
    const FeedData data = {state, "", {}, 0.0, 0.0, {std::make_shared<const FeedGpu>(gpu)}, {}};
    std::vector<int> tries;
    for (int second = 0; second < 200; ++second) {
        const FeedMoment moment = {std::make_shared<const FeedData>(data), 100.0 + second, {}, driverSilence};
        if (retry->Next(moment) == step) tries.push_back(second);
    }
    return tries;
}

TEST(Retry, WaitsLongerAfterEachTryUntilTheProblemIsOver) {
    Retry retry;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Tries(RetryStep::Resume, FeedState::Unavailable, 0, 0, &retry),
                  (std::vector{1, 3, 7, 15, 31, 63, 123, 183}));
        EXPECT_EQ(Tries(RetryStep::Rescan, FeedState::Sampling, 1, 0, &retry), (std::vector{30, 90}));
        EXPECT_TRUE(Tries(RetryStep::Rescan, FeedState::Sampling, 1, 9, &retry).empty());  // the driver hangs
        EXPECT_TRUE(Tries(RetryStep::Rescan, FeedState::Sampling, 0, 0, &retry).empty());  // readings come
    }
}
