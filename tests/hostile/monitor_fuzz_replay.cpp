// Runs the fuzz target once for every file that is named on the command line, where the program is built without a
// fuzzer.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        // Printed before, so that the output of a failure names its file.
        std::puts(argv[i]);
        std::fflush(stdout);
        std::ifstream file(argv[i], std::ios::binary);
        if (!file) return EXIT_FAILURE;
        const std::string bytes(std::istreambuf_iterator<char>(file), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    return argc > 1 ? EXIT_SUCCESS : EXIT_FAILURE;
}
