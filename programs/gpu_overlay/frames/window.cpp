#include "frames/window.h"

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

#include <algorithm>
#include <string>

#include "common/failure.h"

namespace {

constexpr int kOpenGlMajor = 3;
constexpr int kOpenGlMinor = 3;
constexpr double kUsualRefreshRate = 60.0;
constexpr double kRateSeconds = 5.0;
/// A signal that asks for an end is noticed after this time.
constexpr double kLongestWaitSeconds = 0.1;

/// What GLFW has just reported, as a sentence that `what` begins.
std::string ProblemSentence(const std::string& what) {
    const char* description = nullptr;
    glfwGetError(&description);
    return description == nullptr ? what + '.' : what + " (" + description + ").";
}

GLFWwindow* CreateWindow(PixelSize size, bool bVisible) {
    glfwWindowHint(GLFW_CONTEXT_VERSION_MAJOR, kOpenGlMajor);
    glfwWindowHint(GLFW_CONTEXT_VERSION_MINOR, kOpenGlMinor);
    glfwWindowHint(GLFW_OPENGL_PROFILE, GLFW_OPENGL_CORE_PROFILE);
    glfwWindowHint(GLFW_VISIBLE, bVisible ? GLFW_TRUE : GLFW_FALSE);
    // The desktop file names the window by this class.
    glfwWindowHintString(GLFW_X11_CLASS_NAME, "gpu_overlay");
    glfwWindowHintString(GLFW_X11_INSTANCE_NAME, "gpu_overlay");
    return glfwCreateWindow(size.Width, size.Height, "GPU overlay", nullptr, nullptr);
}

}  // namespace

Window::Window(PixelSize size, bool bVisible) {
    if (glfwInit() != GLFW_TRUE) throw Failure(ProblemSentence("No window can be opened: there is no display"));
    Created = CreateWindow(size, bVisible);
    if (Created == nullptr) {
        const std::string problem = ProblemSentence("No window can be opened: OpenGL 3.3 is missing");
        glfwTerminate();
        throw Failure(problem);
    }
    glfwMakeContextCurrent(Created);
    glfwSetWindowUserPointer(Created, this);
    // ImGui, which comes later, passes keys on to it.
    glfwSetKeyCallback(Created, OnKey);
}

Window::~Window() {
    glfwDestroyWindow(Created);
    glfwTerminate();
}

void Window::OnKey(GLFWwindow* window, int key, int /*scanCode*/, int action, int modifiers) {
    if (action != GLFW_PRESS) return;
    auto* const self = static_cast<Window*>(glfwGetWindowUserPointer(window));
    if (key == GLFW_KEY_F1) self->bToolsShown = !self->bToolsShown;
    if (key == GLFW_KEY_Q && (modifiers & GLFW_MOD_CONTROL) != 0) glfwSetWindowShouldClose(window, GLFW_TRUE);
}

void Window::TakeInput() {
    glfwPollEvents();
}

void Window::WaitForInput() {
    glfwWaitEventsTimeout(kLongestWaitSeconds);
}

PixelSize Window::Framebuffer() const {
    PixelSize size{};
    glfwGetFramebufferSize(Created, &size.Width, &size.Height);
    return size;
}

float Window::ContentScale() const {
    float horizontal = 1.0F;
    float vertical = 1.0F;
    glfwGetWindowContentScale(Created, &horizontal, &vertical);
    return horizontal;
}

bool Window::IsMinimised() const {
    const PixelSize size = Framebuffer();
    return glfwGetWindowAttrib(Created, GLFW_ICONIFIED) == GLFW_TRUE || size.Width == 0 || size.Height == 0;
}

bool Window::IsClosing() const {
    return glfwWindowShouldClose(Created) == GLFW_TRUE;
}

void Window::Hide() {
    glfwHideWindow(Created);
    TakeInput();
}

double Window::RefreshRate() {
    // The question waits for the display's server, so not every frame asks it.
    if (glfwGetTime() < AskRateAt) return KnownRate;
    AskRateAt = glfwGetTime() + kRateSeconds;
    KnownRate = 0.0;
    int count = 0;
    GLFWmonitor* const* const monitors = glfwGetMonitors(&count);
    for (int i = 0; i < count; ++i) {
        const GLFWvidmode* const mode = glfwGetVideoMode(monitors[i]);
        if (mode != nullptr) KnownRate = std::max(KnownRate, static_cast<double>(mode->refreshRate));
    }
    if (KnownRate <= 0.0) KnownRate = kUsualRefreshRate;
    return KnownRate;
}

void Window::SetVsync(bool bOn) {
    bVsync = bOn;
    glfwSwapInterval(bOn ? 1 : 0);
}

void Window::Show() {
    glfwSwapBuffers(Created);
}
