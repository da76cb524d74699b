// An engine with Dear ImGui that shows the panel, on a backend that draws nothing. Exits with 0 when frames have shown
// a GPU's readings.

#include <dlfcn.h>
#include <gpu_feed/monitor_feed.h>
#include <gpu_panel/gpu_panel.h>
#include <imgui.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    // There need not be a GPU: the simulated NVML at this path takes the driver's place.
    if (argc != 2 || dlopen(argv[1], RTLD_NOW) == nullptr) return 2;
    ImGui::CreateContext();
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;
    io.DisplaySize = {800.0F, 600.0F};
    io.Fonts->Build();

    gpu_feed::MonitorFeed feed({});
    gpu_panel::GpuPanel panel(&feed);
    // Readings that never come end the program.
    alarm(60);
    // A panel without a GPU is far from that.
    constexpr int kVerticesOfReadings = 1000;
    int vertices = 0;
    while (vertices < kVerticesOfReadings) {
        ImGui::NewFrame();
        panel.DrawWindow("GPUs");
        ImGui::Render();
        vertices = ImGui::GetDrawData()->TotalVtxCount;
    }
    ImGui::DestroyContext();
    std::printf("%s %d vertices.\n", feed.Latest()->Status.c_str(), vertices);
    return feed.Stop() ? 0 : 1;
}
