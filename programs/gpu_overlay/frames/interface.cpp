#include "frames/interface.h"

#include <backends/imgui_impl_glfw.h>
#include <backends/imgui_impl_opengl3.h>
#include <imgui.h>

#include <cmath>

namespace {

/// The height for which ImGui's own font is made.
constexpr float kFontPixels = 13.0F;

ImGuiStyle StyleOf(float scale) {
    ImGuiStyle style;
    ImGui::StyleColorsDark(&style);
    style.WindowRounding = 4.0F;
    style.FrameRounding = 3.0F;
    style.GrabRounding = 3.0F;
    // The scene can be seen through the windows, but is not to disturb reading.
    style.Colors[ImGuiCol_WindowBg].w = 0.9F;
    style.ScaleAllSizes(scale);
    return style;
}

}  // namespace

Interface::Interface(GLFWwindow* window, float scale) {
    IMGUI_CHECKVERSION();
    ImGui::CreateContext();
    // Where windows are is decided anew at each start, so nothing is written into the current folder.
    ImGui::GetIO().IniFilename = nullptr;
    ImGui_ImplGlfw_InitForOpenGL(window, true);
    ImGui_ImplOpenGL3_Init("#version 330 core");
    SetScale(scale);
}

Interface::~Interface() {
    ImGui_ImplOpenGL3_Shutdown();
    ImGui_ImplGlfw_Shutdown();
    ImGui::DestroyContext();
}

void Interface::SetScale(float scale) {
    if (scale == Scale) return;
    Scale = scale;
    ImGui::GetStyle() = StyleOf(scale);
    // Rasterised at that size: an enlarged font would be blurred.
    ImFontConfig config;
    config.SizePixels = std::round(kFontPixels * scale);
    ImFontAtlas* const fonts = ImGui::GetIO().Fonts;
    fonts->Clear();
    fonts->AddFontDefault(&config);
    // The next frame makes it anew.
    ImGui_ImplOpenGL3_DestroyFontsTexture();
    ImGui_ImplOpenGL3_DestroyDeviceObjects();
}

void Interface::Begin() {
    ImGui_ImplOpenGL3_NewFrame();
    ImGui_ImplGlfw_NewFrame();
    ImGui::NewFrame();
}

void Interface::Draw() {
    ImGui::Render();
    ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());
}
