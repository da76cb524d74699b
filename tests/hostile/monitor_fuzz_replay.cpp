// Runs the fuzz target once for every file that is named on the command line and every file in a folder that is named,
// where the program is built without a fuzzer.

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void Replay(const std::filesystem::path& path) {
    // Printed before, so that the output of a failure names its file.
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    std::ifstream file;
    file.exceptions(std::ios::badbit | std::ios::failbit);
    file.open(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) try {
    std::set<std::filesystem::path> files;
    for (const std::string& named : std::set<std::string>(argv + 1, argv + argc)) {
        if (!std::filesystem::is_directory(named)) files.insert(named);
        if (std::filesystem::is_directory(named)) files.insert(std::filesystem::directory_iterator(named), {});
    }
    for (const std::filesystem::path& file : files) Replay(file);
    std::printf("%zu inputs replayed\n", files.size());
    // With empty folders nothing was tested.
    return files.empty() ? 1 : 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
