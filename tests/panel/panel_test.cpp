// The panel as its user sees it: what it shows and what a click does, with the feed's thread and the driver at work.

#include "gpu_panel/gpu_panel.h"

#include <atomic>
#include <cstdlib>
#include <memory>

#include "failing_memory.h"
#include "gpu_feed/monitor_feed.h"
#include "monitor_test.h"
#include "screen.h"

namespace {

using namespace testing;
using namespace gpu_feed;
using gpu_panel::GpuPanel;
using std::chrono::milliseconds;

constexpr const char* kChanged = "Changed here: clocks locked to 1500 MHz graphics, 5001 MHz memory";
constexpr const char* kTuning = "Clocks and power limit";
constexpr const char* kHanging = "The driver has not answered for";

class PanelTest : public ScriptedTest {
protected:
    PanelTest() {
        ImGui::CreateContext();
        ImGuiIO& io = ImGui::GetIO();
        io.IniFilename = nullptr;
        io.DisplaySize = {1000.0F, 3000.0F};
        io.Fonts->Build();
    }
    ~PanelTest() override { ImGui::DestroyContext(); }

    /// Begins with two GPUs.
    void Start() {
        Sim.SetBoards(fixed_boards::FixedBoards(2));
        Feed = std::make_unique<MonitorFeed>(FeedOptions{milliseconds(100)});
        Panel = std::make_unique<GpuPanel>(Feed.get());
        EXPECT_TRUE(WaitToSee("61 C"));
    }

    void Frame() {
        ImGui::NewFrame();
        ImGui::SetNextWindowPos({0.0F, 0.0F});
        ImGui::SetNextWindowSize(ImGui::GetIO().DisplaySize);
        ImGui::Begin("Host");
        Panel->Draw();
        ImGui::End();
        ImGui::Render();
    }

    /// Draws frames, as a host does, until a text is there or, with `bThere` false, is not.
    bool WaitToSee(const std::string& text, bool bThere = true) {
        const auto giveUp = std::chrono::system_clock::now() + std::chrono::seconds(20);
        do {
            Frame();
            if (Seen(text).empty() != bThere) return true;
        } while (std::chrono::system_clock::now() < giveUp);
        ADD_FAILURE() << text;
        return false;
    }

    /// Clicks on the first text that is just `text`, or on what is right of it. What is new can move it meanwhile.
    void Click(const std::string& text, float right = 0.0F) {
        for (const bool bDown : {false, true, false}) {
            const std::vector<SeenText> seen = Seen(text);
            const auto isText = [&text](const SeenText& each) { return each.Text == text; };
            const auto found = std::find_if(seen.begin(), seen.end(), isText);
            ASSERT_NE(found, seen.end()) << text;
            ImGui::GetIO().MousePos = {found->Place.x + right, found->Place.y};
            ImGui::GetIO().MouseDown[0] = bDown;
            Frame();
        }
    }

    /// Locks the first GPU's clocks, until the user is asked whether to keep that.
    void LockClocks() {
        Click(kTuning);
        EXPECT_TRUE(WaitToSee("Apply clocks"));
        Click("Graphics clock", 150.0F);
        Click("Limit", 150.0F);
        EXPECT_EQ(ChangesMade(), "");
        Click("Apply clocks");
        EXPECT_TRUE(WaitToSee("Keep it?"));
        EXPECT_TRUE(WaitToSee(kChanged));
    }

    /// The calls of the driver that change locks or limits.
    std::string ChangesMade() const { return Log(0, {"LockedClocks(", "SetPowerManagementLimit("}); }

    std::unique_ptr<MonitorFeed> Feed;
    std::unique_ptr<GpuPanel> Panel;
};

TEST_F(PanelTest, ChangeIsMadeByApplyAloneAndStaysMarkedUntilItIsTakenBack) {
    Start();
    LockClocks();
    Click("Keep");
    EXPECT_TRUE(WaitToSee("Keep it?", false));
    EXPECT_THAT(Seen("changed"), SizeIs(1));
    while (Feed->Latest()->Tuning.at(0).Deadline != 0.0) Frame();
    Click("Take back");
    EXPECT_TRUE(WaitToSee("hanged", false));
    EXPECT_EQ(ChangesMade(),
              "DeviceSetGpuLockedClocks(0, 1500, 1500) DeviceSetMemoryLockedClocks(0, 5001, 5001) "
              "DeviceResetMemoryLockedClocks(0) DeviceResetGpuLockedClocks(0) ");
}

TEST_F(PanelTest, ChangeThatIsNotKeptGoesBackAndTheUserReadsSo) {
    Start();
    Click("Pause");
    EXPECT_TRUE(WaitToSee("Paused:"));
    sampler_clock::Hold();
    Feed->SetInterval(milliseconds(100));
    LockClocks();
    sampler_clock::PassWaits();
    EXPECT_TRUE(WaitToSee("It went back to: clocks released."));
    EXPECT_TRUE(WaitToSee("hanged", false));
    Click("OK");
    Sim.SetAdministratorRights(false);
    EXPECT_TRUE(WaitToSee("It went back", false));
    Click("Apply clocks");
    EXPECT_TRUE(WaitToSee("NVML denied GPU locked-clock control for this user."));
    EXPECT_THAT(Seen("Changing GPUs needs root"), SizeIs(1));
}

TEST_F(PanelTest, LostGpuShowsItsLastValuesNotAsCurrentAndKeepsItsChanges) {
    Start();
    // In the gauge of the open GPU and in both headings.
    EXPECT_THAT(Seen("61 C"), SizeIs(Ge(3U)));
    LockClocks();
    Sim.FailFrom("nvmlDeviceGetHandleByIndex_v2", simulated_nvml::kGpuIsLost, 1, 0);
    EXPECT_TRUE(WaitToSee("no data since"));
    EXPECT_TRUE(WaitToSee("its last known values"));
    const std::vector<SeenText> seen = Seen("61 C");
    ASSERT_THAT(seen, SizeIs(2));
    EXPECT_NE(seen[0].Color, seen[1].Color);
    Sim.SetBoards({simulated_nvml::DesktopBoard(1)});
    Click("Rescan");
    EXPECT_TRUE(WaitToSee("GPU 0 (NVIDIA GeForce RTX 4080): clocks locked to"));
}

TEST_F(PanelTest, FramesGoOnWhileTheDriverHangsOrIsMissing) {
    Start();
    Sim.Block("nvmlDeviceGetTemperature");
    EXPECT_TRUE(WaitToSee(kHanging));
    EXPECT_THAT(Seen("no data"), SizeIs(2));
    Click("Pause");
    Sim.Unblock();
    EXPECT_TRUE(WaitToSee("Paused:"));
    EXPECT_THAT(Seen(kHanging), IsEmpty());
    Sim.RemoveLibrary();
    Click("Rescan");
    EXPECT_TRUE(WaitToSee("NVML unavailable"));
    const uint64_t openings = Sim.Use().Openings;
    Click("Try again");
    while (Sim.Use().Openings == openings) Frame();
}

/// Publishes what a test has made.
class MadeFeed : public FeedRequests {
public:
    FeedMoment Moment() const override { return Made; }
    void SetInterval(milliseconds) override {}
    void Pause() override {}
    void Resume() override {}
    void Rescan() override {}
    std::future<TuningCapabilities> QueryTuning(const std::string&) override { return {}; }
    std::future<TuningResult> Tune(const std::string&, const TuningChange&, double) override { return {}; }
    void Keep(const std::string&, TuningControl) override {}
    std::future<TuningResult> TakeBack(const std::string&, TuningControl) override { return {}; }

    /// Publishes one more sample of each of `count` GPUs.
    void AddSamples(size_t count) {
        FeedData data = *Made.Data;
        data.State = FeedState::Sampling;
        Made.Now += 1.0;
        std::vector<std::shared_ptr<const FeedGpu>> before = std::move(data.Gpus);
        data.Gpus.clear();
        for (size_t i = 0; i < count; ++i) {
            FeedGpu gpu = before.empty() ? FeedGpu() : *before[i];
            gpu.Key = "GPU-with-a-long-key-" + std::to_string(i);
            gpu.Device.Name = "Some board with a long name";
            gpu.PeriodSeconds = 1.0;
            gpu.Latest.TimestampSeconds = Made.Now;
            gpu.Latest.PowerWatts = 200.0 + Made.Now;
            gpu.Latest.PowerLimitWatts = 320.0;
            gpu.Latest.VramTotalBytes = uint64_t{16} << 30;
            gpu.Samples.Append(gpu.Latest);
            gpu.Processes = {{4711, 1000, "program-with-a-long-name", "user", "/bin/program-with-a-long-name -x"}};
            data.Gpus.push_back(std::make_shared<const FeedGpu>(gpu));
        }
        Made.Data = std::make_shared<const FeedData>(data);
    }

    FeedMoment Made;
};

std::atomic<uint64_t> ImGuiAllocations{0};

TEST_F(PanelTest, WarmFramesAllocateNothingWithNewSamplesEither) {
    ImGui::SetAllocatorFunctions(
        [](size_t bytes, void*) {
            ++ImGuiAllocations;
            return std::malloc(bytes);
        },
        [](void* memory, void*) { std::free(memory); });
    MadeFeed feed;
    Panel = std::make_unique<GpuPanel>(&feed);
    Frame();
    EXPECT_THAT(Seen("Looking for GPUs"), SizeIs(1));
    // As long as what plots show, so that curves do not get longer any more.
    while (feed.Made.Now < 200.0) feed.AddSamples(8);
    constexpr uint64_t kMany = 1'000'000;
    for (int second = 0; second < 20; ++second) {
        feed.AddSamples(8);
        const uint64_t before = ImGuiAllocations;
        failing_memory::AllocationsUntilFailure = kMany;
        for (int frame = 0; frame < 3; ++frame) Frame();
        const uint64_t allocations = kMany - failing_memory::AllocationsUntilFailure + ImGuiAllocations - before;
        // The first frames warm up.
        EXPECT_TRUE(second > 0 || allocations > 0);
        EXPECT_TRUE(second < 10 || allocations == 0) << allocations << " in second " << second;
    }
    failing_memory::AllocationsUntilFailure = 0;
    EXPECT_THAT(Seen("program-with-a-long-name -x"), SizeIs(1));
}

}  // namespace
