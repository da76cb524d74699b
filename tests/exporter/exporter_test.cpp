// gpu_exporter, run as a service runs it, and asked over HTTP.

#include <gmock/gmock.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "shell.h"

namespace {

using namespace testing;

/// A command with which the exporter finds the simulator as any NVML client does. `variables` are for the simulator.
std::string OnSimulator(const std::string& variables) {
    return "LD_LIBRARY_PATH='" SIMULATOR_DIR "' " + variables + " gpu_exporter --interval 100";
}

/// Runs a script of bash while the command `exporter` serves, and ends that with SIGTERM. For the script, `page` prints
/// the metrics and `page_with` waits for lines of them and prints these lines. Result: what the script has printed,
/// what the exporter has logged, and how it ended. After a minute, everything is ended.
std::string WithExporter(const std::string& exporter, const std::string& script) {
    const Result result =
        Shell("log=$(mktemp); timeout 60 bash -euo pipefail -s $log <<'END'\n" + exporter +
              " --listen 127.0.0.1:0 2>$1 & exporter=$!\n"
              "trap 'kill -9 $exporter || true' EXIT\n"
              "until url=$(grep -o 'http://.*:[0-9]*' $1); do kill -0 $exporter; sleep 0.01; done\n"
              "page() { curl -sS -m 10 \"$@\" $url/metrics; }\n"
              "page_with() { until page | grep -E \"$1\"; do sleep 0.01; done; }\n" +
              script + "\nkill $exporter; wait $exporter && echo 'ended well'; trap - EXIT\nEND\ncat $log; rm $log");
    return result.Output + result.Errors;
}

TEST(ExporterTest, PageHasTheSimulatedValuesAndIsWellFormed) {
    if (Shell("command -v promtool").Status != 0) GTEST_SKIP() << "promtool is not installed";
    const std::string third = R"({gpu="2",uuid="GPU-233110de-51a7-4e5f-8d0c-0000a1b2c302")";
    const std::string page = WithExporter("gpu_exporter --simulate=desktop,laptop,datacenter,old --processes",
                                          "page_with 'gpu_up.gpu=\"3\".* 1'; page; page | promtool check metrics");
    EXPECT_THAT(page, AllOf(HasSubstr("\ngpu_memory_size_bytes" + third + "} 85520809984\n"),
                            ContainsRegex("\ngpu_info\\" + third + "[^\n]*,name=\"NVIDIA H100 PCIe\"[^\n]*[}] 1\n"),
                            ContainsRegex("\ngpu_process_memory_bytes\\" + third + ",pid=\"[0-9]+\""),
                            HasSubstr("\ngpu_temperature_celsius{gpu=\"3\""), HasSubstr("ended well")));
    EXPECT_THAT(page, Not(HasSubstr("\ngpu_power_watts{gpu=\"3\""))) << "an old board does not give it";
}

TEST(ExporterTest, LostGpuIsDownAndItsSeriesGo) {
    EXPECT_THAT(WithExporter(OnSimulator("NVML_SIM_BOARDS=2 NVML_SIM_LOSE=1@100"),
                             "page_with 'gpu_up.gpu=\"1\".* 0' >/dev/null; page | grep 'gpu=\"1\"'"),
                MatchesRegex("gpu_up[^\n]* 0\ngpu_reading_age_seconds[^\n]*\nended well\n.*GPU 1 .*"));
}

TEST(ExporterTest, NeitherScrapesNorTheEndWaitForADriverThatHangs) {
    // A call that hangs never returns, so whatever waits for it does not end.
    for (const std::string calls : {"0", "100"}) {
        EXPECT_THAT(WithExporter(OnSimulator("NVML_SIM_HANG=0@" + calls),
                                 "page_with 'driver_silence_seconds ([1-9]|0[.][3-9])'"),
                    HasSubstr("ended well"));
    }
}

TEST(ExporterTest, RunsWithoutADriverAndFindsTheOneThatAppears) {
    // The first library found is not one, also where this machine has the driver.
    EXPECT_THAT(WithExporter("d=$(mktemp -d); : >$d/libnvidia-ml.so.1; LD_LIBRARY_PATH=$d gpu_exporter --interval 100",
                             "page_with 'gpu_exporter_state.*unavailable\"} 1|status=\"NVML unavailable|gpu_up'\n"
                             "ln -s '" SIMULATOR_DIR "/libnvidia-ml.so.1' $d/new; mv $d/new $d/libnvidia-ml.so.1\n"
                             "page_with 'unavailable\"} 0'; page_with 'gpu_up.* 1'; rm -r $d"),
                MatchesRegex("gpu_exporter_state[^\n]* 1\n[^\n]*NVML unavailable[^\n]*\n[^\n]* 0\n# HELP[^\n]*\n"
                             "gpu_up[^\n]* 1\nended well\n.*NVML unavailable.*NVML active: 1 NVIDIA GPU.*"));
}

TEST(ExporterTest, OnlyThoseWithThePasswordGetMetrics) {
    EXPECT_THAT(WithExporter("users=$(mktemp); printf '# who may\\n\\nbob:other\\nada:s3cret\\n' >$users\n"
                             "gpu_exporter --simulate --auth-file $users",
                             "get() { curl -s -o /dev/null -w '%{http_code} ' \"$@\"; }; rm $users\n"
                             "get $url/metrics; for user in ada:wrong ada: bob:s3cret ada:s3cret; do\n"
                             "get -u $user $url/metrics; done; get -H 'Authorization: Basic ##' $url/metrics\n"
                             "get $url/healthz"),
                StartsWith("401 401 401 401 200 401 200 ended well"));
}

TEST(ExporterTest, FailuresHaveOneSentenceAndTheirStatus) {
    // Status, sentence, and options.
    const std::tuple<int, std::string, std::vector<std::string>> failures[] = {
        {2,
         "[.]\n",
         {"--intervall 5", "--interval 99", "--listen 127.0.0.1", "--listen 127.0.0.1:65536", "--listen localhost:9836",
          "--auth-file", "show", "--simulate=65"}},
        {1, "already in use[.]\n", {"--listen $(cat $log)"}},
        {1, "line 2 is not [^\n]*\n", {"--listen 127.0.0.1:0 --auth-file $file"}},
        {1, "read or write[^\n]*\n", {"--listen 127.0.0.1:0 --auth-file $file $(chmod 604 $file)"}},
        {1, "No such file[^\n]*\n", {"--listen 127.0.0.1:0 --auth-file /nowhere/users"}},
    };
    for (const auto& [status, sentence, attempts] : failures) {
        for (const std::string& options : attempts) {
            const std::string output = WithExporter("gpu_exporter --simulate",
                                                    "log=$(mktemp); file=$(mktemp); printf 'ada:s3cret\\nbob' >$file\n"
                                                    "echo ${url#http://} >$log; timeout 20 gpu_exporter " +
                                                        options + " 2>&1 || echo status $?; rm $log $file");
            EXPECT_THAT(output, ContainsRegex("^[^\n]*(" + sentence + ")status " + std::to_string(status) + "\nended"))
                << options;
        }
    }
}

TEST(ExporterTest, HostileClientsStopNeitherScrapesNorTheEnd) {
    // Of each kind 50 stay, so that all together they are more than the server has threads, and 50 leave at once.
    const std::string output = WithExporter(OnSimulator("NVML_SIM_BOARDS=64"), R"(
trap '' PIPE
page_with '^gpu_up.gpu="63".* 1' >/dev/null
get='GET /metrics HTTP/1.1\r\nHost: a\r\n' post='POST /metrics HTTP/1.1\r\nHost: a\r\n' held=()
connect() { exec {client}<>/dev/tcp/127.0.0.1/${url##*:}; printf "$1" >&$client || true; }
for bytes in '' 'GET /met' "$get" "${get}A: b" "$get\r\n$get\r\n" '\x16\x03\x01\xff\r\n\r\n' 'GET /metrics\r\n\r\n' \
    "GET /$(printf %0100000d) HTTP/1.1\r\n\r\n" 'GET /../../../../etc/passwd HTTP/1.1\r\nHost: a\r\n\r\n' \
    "${get}A: $(printf %0100000d)\r\n\r\n" "$get$(printf 'A: %d\\r\\n' {1..2000})\r\n" \
    "${post}Content-Length: 1000000000\r\n\r\n" "${post}Content-Length: -1\r\n\r\n" \
    "${post}Transfer-Encoding: chunked\r\n\r\nzz\r\n"; do
    for i in {1..50}; do
        connect "$bytes"; held+=($client)
        connect "$bytes"; exec {client}>&-
    done
    page | grep -c '^gpu_up.* 1'
    for client in ${held[@]}; do printf A >&$client || true; done 2>/dev/null
done)");
    EXPECT_THAT(output, MatchesRegex("(64\n){14}ended well\n.*")) << output;
}

}  // namespace
