#include "scene/scene.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "profiler/gpu_profiler.h"
#include "scene/shaders.h"

namespace {

constexpr int kSolidsPerLoad = 100;
constexpr int kLightsPerLoad = 6;
constexpr int kLights = kLightsPerLoad * Scene::kGreatestLoad;
constexpr int kFaces = 6;
constexpr GLuint kFrameBinding = 0;
// Every speed is a multiple of 0.01 radians a second, so that all movements begin again after this time. Single
// precision would make them jerky after some hours.
constexpr double kPeriodSeconds = 200.0 * 3.14159265358979;

using Vector3 = std::array<float, 3>;
using Matrix4 = std::array<float, 16>;

// The uniform block `Frame`, in the layout std140.
struct SceneFrame {
    Matrix4 ViewProjection = {};
    Matrix4 ViewToWorld = {};
    std::array<float, 4> Eye = {};
    std::array<float, 4> Lens = {};
    std::array<std::int32_t, 4> Counts = {};
    std::array<std::array<float, 4>, kLights> Lights = {};
};
static_assert(sizeof(SceneFrame) <= 16384, "OpenGL promises no larger uniform block");

Vector3 Cross(const Vector3& a, const Vector3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

float Dot(const Vector3& a, const Vector3& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

Vector3 Normalized(const Vector3& v) {
    const float length = std::sqrt(Dot(v, v));
    return {v[0] / length, v[1] / length, v[2] / length};
}

// A camera that circles the field and looks at its middle.
void PlaceCamera(SceneFrame* frame, float seconds, float aspect) {
    constexpr float kNear = 0.2F;
    constexpr float kFar = 60.0F;
    const float angle = 0.06F * seconds;
    const Vector3 eye = {11.5F * std::sin(angle), 4.2F + 0.5F * std::sin(0.11F * seconds), 11.5F * std::cos(angle)};
    const Vector3 back = Normalized({eye[0], eye[1] + 1.2F, eye[2]});
    const Vector3 right = Normalized(Cross({0.0F, 1.0F, 0.0F}, back));
    const Vector3 up = Cross(back, right);
    const float halfHeight = 0.42F;
    const float halfWidth = halfHeight * aspect;
    frame->Eye = {eye[0], eye[1], eye[2], seconds};
    frame->Lens = {halfWidth, halfHeight, 0.0F, 0.0F};
    const std::array<Vector3, 3> axes = {right, up, back};
    const float depthScale = (kFar + kNear) / (kNear - kFar);
    const float depthOffset = 2.0F * kFar * kNear / (kNear - kFar);
    for (std::size_t column = 0; column < 4; ++column) {
        Vector3 inView;
        for (std::size_t row = 0; row < 3; ++row) {
            inView[row] = column < 3 ? axes[row][column] : -Dot(axes[row], eye);
            if (column < 3) frame->ViewToWorld[column * 4 + row] = axes[column][row];
        }
        float* const out = &frame->ViewProjection[column * 4];
        out[0] = inView[0] / halfWidth;
        out[1] = inView[1] / halfHeight;
        out[2] = inView[2] * depthScale + (column == 3 ? depthOffset : 0.0F);
        out[3] = -inView[2];
    }
}

// Each light drifts on a path of its own; its number decides which.
void PlaceLights(SceneFrame* frame, float seconds, int count) {
    for (int i = 0; i < count; ++i) {
        const auto number = static_cast<float>(i);
        const auto fraction = [&](float step) { return number * step - std::floor(number * step); };
        const float radius = 9.0F * std::sqrt(fraction(0.7548777F) * 0.95F + 0.05F);
        const float angle =
            6.2831853F * fraction(0.5698403F) + seconds * 0.01F * std::floor(10.0F + 25.0F * fraction(0.3247180F));
        const float height = 0.9F + 0.9F * fraction(0.8191725F) + 0.35F * std::sin(seconds * 0.6F + number);
        frame->Lights[static_cast<std::size_t>(i)] = {radius * std::cos(angle), height, radius * std::sin(angle),
                                                      0.5F + 0.5F * std::sin(angle)};
    }
}

GlProgram MakeProgram(const char* vertexText, const char* fragmentText) {
    const std::string head = "#version 330 core\n#define kLights " + std::to_string(kLights);
    return GlProgram(GlShader(GL_VERTEX_SHADER, {head.c_str(), kCommonShader, vertexText}),
                     GlShader(GL_FRAGMENT_SHADER, {head.c_str(), kCommonShader, fragmentText}));
}

void PrepareFramebuffer(int width, int height) {
    glViewport(0, 0, width, height);
    glDisable(GL_BLEND);
    glDisable(GL_SCISSOR_TEST);
    glEnable(GL_CULL_FACE);
    glEnable(GL_DEPTH_TEST);
    glDepthFunc(GL_LESS);
    glDepthMask(GL_TRUE);
    glClear(GL_DEPTH_BUFFER_BIT);
}

void DrawSolids(const GlProgram& program, int solids, int trianglesPerSolid) {
    const GPUProfiler::Scope scope("solids");
    glUseProgram(program.Name);
    glDrawElementsInstanced(GL_TRIANGLES, trianglesPerSolid * 3, GL_UNSIGNED_SHORT, nullptr, solids);
}

void DrawBackground(const GlProgram& program) {
    const GPUProfiler::Scope scope("background");
    // Only where no solid is: at the greatest depth.
    glDepthFunc(GL_LEQUAL);
    glUseProgram(program.Name);
    glDrawArrays(GL_TRIANGLES, 0, 3);
}

}  // namespace

Scene::Scene()
    : Background(MakeProgram(kBackgroundVertexShader, kBackgroundFragmentShader)),
      Solids(MakeProgram(kSolidVertexShader, kSolidFragmentShader)) {
    for (const GlProgram* const program : {&Background, &Solids}) {
        glUniformBlockBinding(program->Name, glGetUniformBlockIndex(program->Name, "Frame"), kFrameBinding);
    }
}

// Two triangles for each cell; the shader computes where the vertices are.
void Scene::MakeSolidMesh(int cells) {
    if (cells == MeshCells) return;
    MeshCells = cells;
    const int side = cells + 1;
    std::vector<std::uint16_t> indices;
    for (int cell = 0; cell < kFaces * cells * cells; ++cell) {
        // Faces lie one after the other, so the rows of all faces count on.
        const int row = cell / cells;
        const int first = (row + row / cells) * side + cell % cells;
        for (const int corner : {0, 1, side + 1, 0, side + 1, side}) {
            indices.push_back(static_cast<std::uint16_t>(first + corner));
        }
    }
    glBufferData(GL_ELEMENT_ARRAY_BUFFER, static_cast<GLsizeiptr>(indices.size() * sizeof indices[0]), indices.data(),
                 GL_STATIC_DRAW);
}

void Scene::Draw(int width, int height, double seconds, int load) {
    if (width <= 0 || height <= 0) return;
    load = std::clamp(load, kLeastLoad, kGreatestLoad);
    const int solids = kSolidsPerLoad * load;
    const int lights = kLightsPerLoad * load;
    const int cells = 4 + 2 * (load / 20);
    const int trianglesPerSolid = kFaces * cells * cells * 2;
    const auto time = static_cast<float>(std::fmod(seconds, kPeriodSeconds));
    SceneFrame frame;
    PlaceCamera(&frame, time, static_cast<float>(width) / static_cast<float>(height));
    PlaceLights(&frame, time, lights);
    frame.Lens[2] = std::pow(static_cast<float>(lights), -0.8F);
    frame.Counts = {solids, cells, lights, 0};

    PrepareFramebuffer(width, height);
    glBindBufferBase(GL_UNIFORM_BUFFER, kFrameBinding, FrameValues.Name);
    glBufferData(GL_UNIFORM_BUFFER, sizeof frame, &frame, GL_STREAM_DRAW);
    glBindVertexArray(SolidMesh.Name);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, SolidIndices.Name);
    MakeSolidMesh(cells);
    DrawSolids(Solids, solids, trianglesPerSolid);
    DrawBackground(Background);
    glDisable(GL_DEPTH_TEST);
    glDisable(GL_CULL_FACE);
    GPUProfiler* const profiler = GPUProfiler::Get();
    profiler->SetCounter("instances", solids);
    profiler->SetCounter("triangles", static_cast<double>(solids) * trianglesPerSolid);
    profiler->SetCounter("lights", lights);
}
