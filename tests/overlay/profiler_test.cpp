#include "profiler/gpu_profiler.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "failing_memory.h"
#include "profiler/timer_queries.h"

namespace {

constexpr std::uint64_t kMillisecond = 1'000'000;

// A GPU that does what a test says. A question that would have to wait for the answer throws.
struct ScriptedGpu : TimerQueries {
    void Issue(std::size_t slot) override { Results[slot] = {Now, ++Issued}; }
    bool IsReady(std::size_t slot) override { return Results.at(slot).second <= Finished; }
    std::uint64_t Nanoseconds(std::size_t slot) override {
        return IsReady(slot) ? Results.at(slot).first : throw std::logic_error("would wait");
    }

    std::uint64_t Now = kMillisecond << 40;
    std::uint64_t Issued = 0;
    // Timestamps up to this one are ready.
    std::uint64_t Finished = UINT64_MAX;

    // The time of each slot, and which timestamp it is.
    std::map<std::size_t, std::pair<std::uint64_t, std::uint64_t>> Results;
};

class ProfilerTest : public testing::Test {
protected:
    ProfilerTest() { Profiler->Open(std::unique_ptr<TimerQueries>(Gpu)); }

    // Issues eight timestamps.
    void DrawFrame(std::uint64_t nanoseconds = kMillisecond) {
        Profiler->BeginFrame();
        {
            const GPUProfiler::Scope outer("outer");
            Gpu->Now += nanoseconds;
            const GPUProfiler::Scope inner("inner");
            Gpu->Now += nanoseconds;
        }
        { const GPUProfiler::Scope empty("empty"); }
        for (const double value : {-1.0, static_cast<double>(nanoseconds)}) Profiler->SetCounter("solids", value);
        Profiler->EndFrame();
    }
    // 0 when there is no frame.
    std::uint64_t LatestNumber() { return Profiler->GetLatestSnapshot(&Latest) ? Latest.FrameNumber : 0; }

    GPUProfiler* const Profiler = GPUProfiler::Get();
    ScriptedGpu* const Gpu = new ScriptedGpu;
    GPUProfiler::FrameSnapshot Latest;
};

TEST_F(ProfilerTest, AFrameArrivesWithScopesAndCountersWhenTheGpuHasFinishedIt) {
    Gpu->Finished = 7;
    DrawFrame();
    DrawFrame(5 * kMillisecond);
    EXPECT_EQ(LatestNumber(), 0U);
    Gpu->Finished = 8;
    DrawFrame();
    ASSERT_EQ(LatestNumber(), 1U);
    EXPECT_EQ(Latest.GpuFrameTimeMs, 2.0);
    for (const unsigned scope : {0U, 1U, 2U}) EXPECT_EQ(Latest.Scopes.at(scope).Depth, scope == 1U ? 1 : 0);
}

TEST_F(ProfilerTest, AFullRingSkipsFramesAndGivesLostOnesUp) {
    Gpu->Finished = 0;
    for (int frame = 1; frame <= 9; ++frame) DrawFrame();
    EXPECT_EQ(Gpu->Issued, 4 * 8U);
    Gpu->Finished = Gpu->Issued;
    DrawFrame();
    EXPECT_EQ(LatestNumber(), 4U);
    // Frame 10 never ends.
    for (int frame = 11; frame <= 900; ++frame) DrawFrame();
    EXPECT_EQ(Gpu->Issued, 12 * 8U);
}

TEST_F(ProfilerTest, TimesThatCannotBeTrueAreDroppedAndWithoutATimerThereAreNoTimes) {
    DrawFrame();
    for (const auto time : {-kMillisecond, kMillisecond << 22, 0 * kMillisecond, kMillisecond, kMillisecond}) {
        DrawFrame(time);
    }
    EXPECT_EQ(LatestNumber(), 1U) << "the last two are not read yet";
    Profiler->Open(nullptr);
    EXPECT_EQ(LatestNumber(), 0U);
    Profiler->BeginFrame();
    Profiler->EndFrame();
    ASSERT_EQ(LatestNumber(), 1U);
    EXPECT_EQ(Latest.GpuFrameTimeMs, 0.0);
    EXPECT_GT(Latest.CpuFrameTimeMs, 0.0);
}

TEST_F(ProfilerTest, ReadersOnOtherThreadsGetWholeFramesAndWarmFramesAllocateNothing) {
    std::thread reader([] {
        failing_memory::bChecking = true;
        for (GPUProfiler::FrameSnapshot frame; frame.FrameNumber < 1000;) {
            if (!GPUProfiler::Get()->GetLatestSnapshot(&frame)) continue;
            EXPECT_EQ(frame.Counters.at(0).Value * 2, frame.GpuFrameTimeMs * 1e6);
            EXPECT_EQ(frame.Scopes.at(1).GpuTimeMs * 2, frame.GpuFrameTimeMs);
        }
    });
    for (std::uint64_t frame = 1; LatestNumber() < 1000; ++frame) {
        if (frame == 20) failing_memory::AllocationsUntilFailure = kMillisecond;
        DrawFrame(frame * kMillisecond / 64);
    }
    EXPECT_EQ(failing_memory::AllocationsUntilFailure.exchange(1), kMillisecond);
    EXPECT_FALSE(Profiler->GetLatestSnapshot(&(Latest = {})));
    reader.join();
}

}  // namespace
