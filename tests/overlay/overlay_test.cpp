// gpu_overlay, run as a user runs it, on a display in memory with OpenGL in software.

#include <gmock/gmock.h>
#include <png.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "shell.h"

namespace {

using nlohmann::json;
using namespace testing;

/// Begins a script with a display of its own.
constexpr const char* kDisplay = R"sh(
    fifo=$(mktemp -u); mkfifo $fifo; Xvfb -displayfd 3 -screen 0 1280x1024x24 3>$fifo 2>/dev/null & display=$!
    trap 'kill $display' EXIT; read -r number <$fifo; rm $fifo; export DISPLAY=:$number; unset WAYLAND_DISPLAY; )sh";

/// White, which nothing else that lies over the dark panel has.
constexpr uint32_t kTextColor = 0xFFFFFFFF;

class OverlayTest : public Test {
protected:
    void TearDown() override {
        unlink(Report.c_str());
        unlink(Screenshot.c_str());
    }

    json ReadReport() const {
        std::ifstream file(Report);
        return json::parse(file, nullptr, false);
    }

    /// The colors of the screenshot between these columns, and how many pixels have each.
    std::map<uint32_t, size_t> ColorsBetween(size_t left, size_t right) const {
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        if (png_image_begin_read_from_file(&image, Screenshot.c_str()) == 0) return {};
        image.format = PNG_FORMAT_RGBA;
        std::vector<uint32_t> pixels(size_t{image.width} * image.height);
        if (png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr) == 0) return {};
        std::map<uint32_t, size_t> colors;
        for (size_t i = 0; i < pixels.size(); ++i) {
            const size_t column = i % image.width;
            if (column >= left && column < right) ++colors[pixels[i]];
        }
        return colors;
    }

    const std::string Base = TempDir() + "gpu_overlay_" + std::to_string(getpid());
    const std::string Report = Base + ".json";
    const std::string Screenshot = Base + ".png";
};

TEST_F(OverlayTest, FramesAreMeasuredAndReachSamplesAndScreenshot) {
    const Result result =
        Shell(kDisplay + ("gpu_overlay --simulate=2 --interval 100 --size 1000x300 --frames 10 --load 1,10 --report " +
                          Report + " --screenshot " + Screenshot));
    ASSERT_EQ(result.Status, 0) << result.Errors;
    const json report = ReadReport();
    const json& steps = report.at("load_steps");
    EXPECT_GT(steps.at(1).at("gpu_ms").at("median"), 2.0 * steps.at(0).at("gpu_ms").at("median").get<double>());
    const std::set<double> measured = report.at("gpu_frame_times_ms");
    ASSERT_THAT(report.at("gpus"), SizeIs(2));
    for (const json& gpu : report["gpus"]) {
        const std::vector<double> sampled = gpu.at("frame_times_ms");
        EXPECT_THAT(sampled, SizeIs(Gt(2U)));
        for (const double time : sampled) EXPECT_EQ(measured.count(time), 1U) << time;
    }
    EXPECT_THAT(ColorsBetween(280, 460), SizeIs(Gt(1000U))) << "the scene, whose surfaces are shaded";
    EXPECT_THAT(ColorsBetween(480, 1000), Contains(Pair(kTextColor, Gt(1000U)))) << "the panel over the scene";
}

TEST_F(OverlayTest, FramesGoOnWhileABoardHangs) {
    const Result result = Shell(kDisplay + ("on_simulator NVML_SIM_BOARDS=2 NVML_SIM_HANG=1@60 timeout 60 gpu_overlay "
                                            "--interval 100 --size 300x300 --frames 50 --report " +
                                            Report));
    EXPECT_EQ(result.Status, 0) << result.Errors;
    const json report = ReadReport();
    EXPECT_EQ(report.at("frames"), 50);
    EXPECT_GT(report.at("driver_silence_seconds"), 0.0);
}

TEST_F(OverlayTest, StopSignalClosesTheWindowAndStillReports) {
    const Result result =
        Shell(kDisplay + ("gpu_overlay --simulate --size 300x300 --report " + Report + " & overlay=$!; until [ -e " +
                          Report + " ]; do :; done; kill -TERM $overlay; wait $overlay"));
    EXPECT_EQ(result.Status, 0) << result.Errors;
    EXPECT_EQ(ReadReport().at("vsync"), true);
}

TEST_F(OverlayTest, WhatCannotWorkGetsOneSentenceAndAStatus) {
    const std::tuple<std::string, int, std::string> cases[] = {
        {"env -u DISPLAY gpu_overlay", 1, "No window can be opened: there is no display [(].*[)][.]"},
        {"MESA_GL_VERSION_OVERRIDE=2.1 gpu_overlay", 1, "No window can be opened: OpenGL 3.3 is missing [(].*[)][.]"},
        {"gpu_overlay --report /nowhere/report", 1, "Cannot write /nowhere/report: No such file or directory[.]"},
        {"gpu_overlay --frames 1 --screenshot /dev/full", 1, "Cannot write /dev/full: No space left on device[.]"},
        {"gpu_overlay --help >/dev/full", 1, "Cannot write to standard output[.]"},
        {"gpu_overlay --load 101", 2, "--load: .*101.* Run gpu_overlay --help for usage[.]"},
        {"gpu_overlay --report x --screenshot x", 2,
         "--report and --screenshot .* Run gpu_overlay --help for usage[.]"},
        {"gpu_overlay --load 1,2", 2, "Several loads need --frames[.] Run gpu_overlay --help for usage[.]"},
        {"gpu_overlay --size 100x", 2, "--size: .*200x200.* Run gpu_overlay --help for usage[.]"},
        {"gpu_overlay --frame", 2, ".*--frame[.] Run gpu_overlay --help for usage[.]"}};
    for (const auto& [command, status, sentence] : cases) {
        const Result result = Shell(kDisplay + command);
        EXPECT_EQ(result.Status, status) << command;
        EXPECT_THAT(result.Errors, MatchesRegex("[^\n]*\n")) << command;
        EXPECT_THAT(result.Errors, MatchesRegex(sentence + "\n")) << command;
    }
}

}  // namespace
