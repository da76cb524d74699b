// The panel as its user sees it: what it shows and what a click does, with the feed's thread and the driver at work.

#include "gpu_panel/gpu_panel.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>

#include "failing_memory.h"
#include "gpu_feed/monitor_feed.h"
#include "monitor_test.h"
#include "screen.h"

namespace {

using namespace testing;
using namespace gpu_feed;

constexpr const char* kChanged = "Changed here: clocks locked to 1500 MHz graphics, 5001 MHz memory";
constexpr const char* kHanging = "The driver has not answered for";
std::atomic<uint64_t> ImGuiAllocations{0};

/// Begins with two GPUs, of which the first is open.
class PanelTest : public ScriptedTest {
protected:
    PanelTest() {
        const auto allocate = [](size_t bytes, void*) {
            ++ImGuiAllocations;
            return std::malloc(bytes);
        };
        ImGui::SetAllocatorFunctions(allocate, [](void* memory, void*) { std::free(memory); });
        ImGui::CreateContext();
        ImGui::GetIO().IniFilename = nullptr;
        ImGui::GetIO().DisplaySize = {1000.0F, 3000.0F};
        ImGui::GetIO().Fonts->Build();
        Sim.SetBoards(fixed_boards::FixedBoards(2));
        Feed = std::make_unique<MonitorFeed>(FeedOptions{std::chrono::milliseconds(100)});
        Panel = std::make_unique<gpu_panel::GpuPanel>(Feed.get());
        WaitToSee("61 C");
    }
    ~PanelTest() override { ImGui::DestroyContext(); }

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
    void WaitToSee(const std::string& text, bool bThere = true) {
        const auto giveUp = std::chrono::system_clock::now() + std::chrono::seconds(20);
        do {
            Frame();
        } while (Seen(text).empty() == bThere && std::chrono::system_clock::now() < giveUp);
        EXPECT_NE(Seen(text).empty(), bThere) << text;
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
        Click("Clocks and power limit");
        WaitToSee("Apply clocks");
        Click("Graphics clock", 150.0F);
        Click("Limit", 150.0F);
        EXPECT_EQ(ChangesMade(), "");
        Click("Apply clocks");
        WaitToSee("Keep it?");
        WaitToSee(kChanged);
    }

    /// The calls of the driver that change locks or limits.
    std::string ChangesMade() const { return Log(0, {"LockedClocks(", "SetPowerManagementLimit("}); }

    std::unique_ptr<MonitorFeed> Feed;
    std::unique_ptr<gpu_panel::GpuPanel> Panel;
};

TEST_F(PanelTest, ChangeIsMadeByApplyAloneAndStaysMarkedUntilItIsTakenBack) {
    LockClocks();
    Click("Keep");
    while (Feed->Latest()->Tuning.at(0).Deadline != 0.0) Frame();
    WaitToSee("Keep it?", false);
    EXPECT_THAT(Seen("changed"), SizeIs(1));
    Click("Take back");
    WaitToSee("hanged", false);
    EXPECT_EQ(ChangesMade(),
              "DeviceSetGpuLockedClocks(0, 1500, 1500) DeviceSetMemoryLockedClocks(0, 5001, 5001) "
              "DeviceResetMemoryLockedClocks(0) DeviceResetGpuLockedClocks(0) ");
}

TEST_F(PanelTest, ChangeThatIsNotKeptGoesBackAndTheUserReadsSo) {
    Click("Pause");
    WaitToSee("Paused:");
    sampler_clock::Hold();
    Feed->SetInterval(std::chrono::milliseconds(100));
    LockClocks();
    // Until the feed waits for the end of the time to answer.
    const double deadline = Feed->Latest()->Tuning.at(0).Deadline;
    const auto latest = [] { return std::chrono::duration<double>(sampler_clock::LatestWait().Deadline).count(); };
    while (std::abs(latest() - deadline) > 1e-6) Frame();
    sampler_clock::PassWaits();
    WaitToSee("It went back to: clocks released.");
    WaitToSee("hanged", false);
    Click("OK");
    Sim.SetAdministratorRights(false);
    WaitToSee("It went back", false);
    // The button can be clicked only when the feed has answered what can be changed now.
    while (Seen("NVML denied GPU locked-clock control for this user.").empty()) Click("Apply clocks");
}

TEST_F(PanelTest, LostGpuShowsItsLastValuesNotAsCurrentAndKeepsItsChanges) {
    LockClocks();
    Sim.FailFrom("nvmlDeviceGetHandleByIndex_v2", simulated_nvml::kGpuIsLost, 1, 0);
    WaitToSee("its last known values");
    // In the gauge of the lost GPU and in the heading of the other one.
    const std::vector<SeenText> seen = Seen("61 C");
    ASSERT_THAT(seen, SizeIs(2));
    EXPECT_NE(seen[0].Color, seen[1].Color);
    Sim.SetBoards({simulated_nvml::DesktopBoard(1)});
    Click("Rescan");
    WaitToSee("GPU 0 (NVIDIA GeForce RTX 4080): clocks locked to");
    // The GPU that is left has another index now.
    EXPECT_THAT(Seen("GPU 1: "), IsEmpty());
}

TEST_F(PanelTest, FramesGoOnWhileTheDriverHangsOrIsMissing) {
    Sim.Block("nvmlDeviceGetTemperature");
    WaitToSee(kHanging);
    EXPECT_THAT(Seen("no data"), SizeIs(2));
    Click("Pause");
    Sim.Unblock();
    WaitToSee("Paused:");
    EXPECT_THAT(Seen(kHanging), IsEmpty());
    Sim.RemoveLibrary();
    Click("Rescan");
    WaitToSee("NVML unavailable");
    const uint64_t openings = Sim.Use().Openings;
    Click("Try again");
    while (Sim.Use().Openings == openings) Frame();
}

TEST_F(PanelTest, WarmFrameAllocatesNothingWithNewDataEither) {
    constexpr uint64_t kMany = 1'000'000;
    uint64_t fewest = kMany;
    for (int i = 0; i < 20; ++i) {
        const std::shared_ptr<const FeedData> shown = Feed->Latest();
        Frame();
        while (Feed->Latest() == shown) Frame();
        const uint64_t before = ImGuiAllocations;
        failing_memory::AllocationsUntilFailure = kMany;
        Frame();
        // Threads of the feed may allocate meanwhile, and curves that get longer, but not in each of these frames.
        fewest = std::min(fewest, kMany - failing_memory::AllocationsUntilFailure + ImGuiAllocations - before);
        failing_memory::AllocationsUntilFailure = 0;
    }
    EXPECT_EQ(fewest, 0U);
}

}  // namespace
