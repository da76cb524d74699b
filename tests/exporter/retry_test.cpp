#include "run/retry.h"

#include <gtest/gtest.h>

#include <vector>

using namespace gpu_feed;

namespace {

/// Lets the driver stay in a state for 1000 seconds, and gives those in which `retry` wanted `step`.
std::vector<int> TriesOf(RetryStep step, FeedState state, double silentSince, double driverSilence, Retry* retry) {
    FeedGpu gpu;
    gpu.SilentSince = silentSince;
    FeedData data;
    data.State = state;
    data.Gpus = {std::make_shared<const FeedGpu>(gpu)};
    std::vector<int> tries;
    for (int second = 0; second < 1000; ++second) {
        const FeedMoment moment = {std::make_shared<const FeedData>(data), 100.0 + second, {}, driverSilence};
        if (retry->Next(moment) == step) tries.push_back(second);
    }
    return tries;
}

TEST(Retry, WaitsLongerAfterEachTryUntilTheProblemIsOver) {
    const std::vector<int> resumes = {1,   3,   7,   15,  31,  63,  123, 183, 243, 303, 363,
                                      423, 483, 543, 603, 663, 723, 783, 843, 903, 963};
    Retry retry;
    for (int repetition = 0; repetition < 2; ++repetition) {
        EXPECT_EQ(TriesOf(RetryStep::Resume, FeedState::Unavailable, 0.0, 0.0, &retry), resumes);
        EXPECT_EQ(TriesOf(RetryStep::Rescan, FeedState::Sampling, 1.0, 0.0, &retry),
                  (std::vector{30, 90, 210, 450, 930}));
        EXPECT_TRUE(TriesOf(RetryStep::Rescan, FeedState::Sampling, 1.0, 9.0, &retry).empty()) << "the driver hangs";
        EXPECT_TRUE(TriesOf(RetryStep::Rescan, FeedState::Sampling, 0.0, 0.0, &retry).empty())
            << "the GPU gives readings";
    }
}

}  // namespace
