// Runs the fuzz target once for every file that is named or lies in a folder that is named, where no fuzzer does it.

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
    // Told before, so that the output of a failure ends with its file.
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    std::ifstream file;
    file.exceptions(std::ios::badbit | std::ios::failbit);
    file.open(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

int ReplayAll(const std::vector<std::string>& named) {
    size_t replayed = 0;
    for (const std::string& name : named) {
        const std::vector<std::filesystem::path> files = FilesOf(name);
        for (const std::filesystem::path& file : files) Replay(file);
        replayed += files.size();
    }
    std::printf("%zu inputs replayed\n", replayed);
    // A folder that has gone empty must not pass for one whose inputs are all fine.
    return replayed > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return ReplayAll({argv + 1, argv + argc});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 2;
    }
}
