// Runs the fuzz target once for every file that is named on the command line and every file in a folder that is named,
// where the program is built without a fuzzer.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<std::filesystem::path> FilesOf(const std::filesystem::path& named) {
    std::vector<std::filesystem::path> files;
    if (!std::filesystem::is_directory(named)) return {named};
    for (const auto& entry : std::filesystem::directory_iterator(named)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

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
    size_t replayed = 0;
    for (const std::string& named : std::vector<std::string>(argv + 1, argv + argc)) {
        for (const std::filesystem::path& file : FilesOf(named)) {
            Replay(file);
            ++replayed;
        }
    }
    std::printf("%zu inputs replayed\n", replayed);
    // With empty folders nothing was tested.
    return replayed > 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
