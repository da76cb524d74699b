// gpu_exporter, run as a service runs it, and asked over HTTP.

#include <gmock/gmock.h>

#include <chrono>
#include <list>
#include <sstream>
#include <thread>

#include "exporter_process.h"
#include "shell.h"

namespace {

using namespace testing;

/// The environment in which the exporter finds the simulator as any NVML client does, with these variables.
std::string OnSimulator(const std::string& variables) {
    return "LD_LIBRARY_PATH='" SIMULATOR_DIR "' " + variables;
}

/// Asks until a page is as wanted; gives that page, or the last one.
std::string PageThat(const Matcher<const std::string&>& wanted, const ExporterProcess& exporter) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::string page = exporter.Get("/metrics").Body;
    while (!wanted.Matches(page) && std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        page = exporter.Get("/metrics").Body;
    }
    return page;
}

/// The series of the GPU at this index, one a line.
std::string SeriesOf(const std::string& gpu, const std::string& page) {
    std::istringstream lines(page);
    std::string series;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("{gpu=\"" + gpu + "\",") != std::string::npos) series += line + '\n';
    }
    return series;
}

TEST(ExporterTest, PageHasTheSimulatedValuesAndIsWellFormed) {
    const ExporterProcess exporter("--simulate=desktop,laptop,datacenter,old --processes");
    const std::string third = R"({gpu="2",uuid="GPU-233110de-51a7-4e5f-8d0c-0000a1b2c302")";
    const std::string page = PageThat(HasSubstr("gpu_up" + third + "} 1\n"), exporter);
    EXPECT_THAT(page, AllOf(HasSubstr("\ngpu_memory_size_bytes" + third + "} 85520809984\n"),
                            HasSubstr("\ngpu_power_limit_minimum_watts" + third + "} 200\n"),
                            HasSubstr("\ngpu_memory_clock_hertz" + third + "} 1593000000\n"),
                            ContainsRegex("\ngpu_info\\" + third + "[^\n]*,name=\"NVIDIA H100 PCIe\"[^\n]*[}] 1\n"),
                            ContainsRegex("\ngpu_process_memory_bytes\\" + third + ",pid=\"[0-9]+\"")));
    EXPECT_THAT(SeriesOf("3", page), AllOf(HasSubstr("gpu_temperature_celsius"), Not(HasSubstr("gpu_power_"))))
        << "what an old board does not give";
    const Result checked = Shell("promtool check metrics <<'END'\n" + page + "END\n");
    if (checked.Status == 127) GTEST_SKIP() << "promtool is not installed";
    EXPECT_EQ(checked.Status, 0) << checked.Output << checked.Errors;
}

TEST(ExporterTest, LostGpuIsDownAndItsSeriesGo) {
    ExporterProcess exporter("--interval 100", OnSimulator("NVML_SIM_BOARDS=2 NVML_SIM_LOSE=1@100"));
    const std::string page = PageThat(ContainsRegex("\ngpu_up[{]gpu=\"1\"[^\n]* 0\n"), exporter);
    EXPECT_THAT(SeriesOf("1", page), MatchesRegex("gpu_up[^\n]* 0\ngpu_reading_age_seconds[^\n]* [0-9.]+\n"));
    EXPECT_THAT(SeriesOf("0", page), AllOf(ContainsRegex("gpu_up[^\n]* 1\n"), HasSubstr("gpu_power_watts")));
    EXPECT_EQ(exporter.Stop(), 0);
    EXPECT_THAT(exporter.Log, HasSubstr("GPU 1"));
}

TEST(ExporterTest, NeitherScrapesNorTheEndWaitForADriverThatHangs) {
    // A call that hangs never returns, so whatever waits for it does not end.
    for (const std::string calls : {"0", "100"}) {
        ExporterProcess exporter("--interval 100", OnSimulator("NVML_SIM_HANG=0@" + calls));
        const auto isSilent = ContainsRegex("\ngpu_exporter_driver_silence_seconds ([1-9]|0[.][3-9])");
        EXPECT_THAT(PageThat(isSilent, exporter), isSilent) << calls;
        EXPECT_EQ(exporter.Stop(), 0) << calls << exporter.Log;
    }
}

TEST(ExporterTest, RunsWithoutADriverAndFindsTheOneThatAppears) {
    // The first library found is not one, also where this machine has the driver.
    const std::string folder = Shell("folder=$(mktemp -d); : >$folder/libnvidia-ml.so.1; printf %s $folder").Output;
    ExporterProcess exporter("--interval 100", "LD_LIBRARY_PATH=" + folder);
    EXPECT_THAT(PageThat(HasSubstr("gpu_exporter_state{state=\"unavailable\"} 1\n"), exporter),
                AllOf(ContainsRegex("\ngpu_exporter_status_info[{]status=\"NVML unavailable[^\n]*[}] 1\n"),
                      HasSubstr("gpu_exporter_state{state=\"sampling\"} 0\n"), Not(HasSubstr("gpu_up"))));
    Shell("cd " + folder + " && ln -s '" SIMULATOR_DIR "/libnvidia-ml.so.1' new && mv new libnvidia-ml.so.1");
    const auto isUp = AllOf(HasSubstr("{state=\"unavailable\"} 0\n"), ContainsRegex("\ngpu_up[{][^\n]* 1\n"));
    EXPECT_THAT(PageThat(isUp, exporter), isUp);
    EXPECT_EQ(exporter.Stop(), 0);
    EXPECT_THAT(exporter.Log, AllOf(HasSubstr("NVML unavailable"), HasSubstr("NVML active: 1 NVIDIA GPU(s).")));
    Shell("rm -r " + folder);
}

TEST(ExporterTest, OnlyThoseWithThePasswordGetMetrics) {
    const std::string file =
        Shell("file=$(mktemp); printf '# who may\n\nbob:other\nada:s3cret\n' >$file; printf %s $file").Output;
    const ExporterProcess exporter("--simulate --auth-file " + file);
    const std::pair<std::string, int> attempts[] = {
        {"", 401},
        {"Authorization: Basic YWRhOndyb25n\r\n", 401},  // ada:wrong
        {"Authorization: Basic YWRhOg==\r\n", 401},      // ada:
        {"Authorization: Basic ####\r\n", 401},
        {"Authorization: Basic YWRhOnMzY3JldA==\r\n", 200},  // ada:s3cret
    };
    for (const auto& [field, status] : attempts) {
        const HttpAnswer answer = exporter.Get("/metrics", field);
        EXPECT_EQ(answer.Status, status) << field;
        EXPECT_EQ(answer.Body.find("gpu_exporter_state") != std::string::npos, status == 200) << field;
        EXPECT_EQ(exporter.Get("/healthz", field).Status, 200);
    }
    Shell("rm " + file);
}

TEST(ExporterTest, FailuresHaveOneSentenceAndTheirStatus) {
    const ExporterProcess other("--simulate");
    // Status, sentence, options, and what each attempt has in the place of #.
    // clang-format off
    const std::tuple<int, std::string, std::string, std::vector<std::string>> failures[] = {
        {2, "[.]\n", "#", {"--intervall 5", "--interval 99", "--interval ten", "--listen 127.0.0.1", "--simulate=65",
                           "--listen 127.0.0.1:65536", "--listen localhost:9836", "--auth-file", "show"}},
        {1, "Address already in use[^\n]*\n", "--listen 127.0.0.1:#", {std::to_string(other.Port)}},
        {1, "line 2[^\n]*\n", "--listen 127.0.0.1:0 --auth-file $file#", {""}},
        {1, "read[^\n]*\n", "--listen 127.0.0.1:0 --auth-file $file $(chmod # $file)", {"604"}},
        {1, "No such file[^\n]*\n", "--listen 127.0.0.1:0 --auth-file #", {"/nowhere/credentials"}},
    };
    // clang-format on
    for (const auto& [status, sentence, options, places] : failures) {
        for (const std::string& place : places) {
            std::string command = "timeout 20 gpu_exporter " + options;
            command.replace(command.find('#'), 1, place);
            const Result result = Shell("file=$(mktemp); echo 'ada:s3cret\nbob' >$file; " + command +
                                        "; status=$?; rm $file; exit $status");
            EXPECT_EQ(result.Status, status) << command;
            EXPECT_THAT(result.Errors, MatchesRegex("[^\n]*" + sentence)) << command;
        }
    }
}

TEST(ExporterTest, HostileClientsStopNeitherScrapesNorTheEnd) {
    ExporterProcess exporter("--interval 100", OnSimulator("NVML_SIM_BOARDS=64"));
    const auto isWhole = ContainsRegex("\ngpu_up[{]gpu=\"63\"[^\n]* 1\n");
    EXPECT_THAT(PageThat(isWhole, exporter), isWhole);
    const std::string head = "GET /metrics HTTP/1.1\r\nHost: localhost\r\n";
    const std::string post = "POST /metrics HTTP/1.1\r\nHost: localhost\r\n";
    std::string manyFields = head;
    for (int i = 0; i < 2000; ++i) manyFields += "A: b\r\n";
    const std::pair<std::string, std::string> clients[] = {
        {"half-open connections", ""},
        {"half a first line", "GET /met"},
        {"slow senders", head},
        {"half a field", head + "A: b"},
        {"slow readers", head + "\r\n" + head + "\r\n"},
        {"no HTTP", "\x16\x03\x01\xff\r\n\r\n"},
        {"no version", "GET /metrics\r\n\r\n"},
        {"a long path", "GET /" + std::string(100000, 'a') + " HTTP/1.1\r\n\r\n"},
        {"a path outside", "GET /../../../../etc/passwd HTTP/1.1\r\nHost: localhost\r\n\r\n"},
        {"a long field", head + "A: " + std::string(1 << 20, 'a') + "\r\n\r\n"},
        {"many fields", manyFields + "\r\n"},
        {"a body that does not come", post + "Content-Length: 1000000000\r\n\r\n"},
        {"a length that is not one", post + "Content-Length: -1\r\n\r\n"},
        {"bad chunks", post + "Transfer-Encoding: chunked\r\n\r\nzzzz\r\n"},
    };
    std::list<HttpConnection> open;
    for (const auto& [name, bytes] : clients) {
        for (int i = 0; i < 50; ++i) {
            constexpr int kFewBytes = 2048;
            open.emplace_back(exporter.Port, kFewBytes).Send(bytes, MSG_DONTWAIT);
            // Leaves in the middle of the answer.
            HttpConnection(exporter.Port, kFewBytes).Send(bytes, MSG_DONTWAIT);
        }
        EXPECT_EQ(exporter.Get("/metrics").Status, 200) << name;
        for (const HttpConnection& client : open) client.Send("A", MSG_DONTWAIT);
    }
    EXPECT_THAT(exporter.Get("/metrics").Body, isWhole);
    EXPECT_EQ(exporter.Stop(), 0) << exporter.Log;
}

}  // namespace
