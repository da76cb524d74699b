// Helpers of the source with inputs that no simulated driver can cause. The loader is a table of entry points.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "nvml_gpu_monitor.cpp"  // NOLINT(bugprone-suspicious-include): its unnamed namespace is what is tested

namespace {

std::map<std::string, void*> Exports;

/// Its address is the handle of an open library.
int OpenLibrary = 0;

void Export(const char* name, HandleByIndexFn entryPoint) {
    Exports[name] = reinterpret_cast<void*>(entryPoint);
}

TEST(GetDeviceTest, NeedsAPlaceALibraryAndAHandle) {
    NvmlDevice device = &OpenLibrary;
    EXPECT_FALSE(GetDevice(&OpenLibrary, 0, nullptr));
    EXPECT_FALSE(GetDevice(&OpenLibrary, 0, &device)) << "no entry point";
    EXPECT_EQ(device, nullptr);

    const auto giveHandle = [](unsigned int index, NvmlDevice* handle) -> NvmlReturn {
        *handle = index < 2 ? &OpenLibrary : nullptr;
        return index == 1 ? 999 : kNvmlSuccess;
    };
    Export("nvmlDeviceGetHandleByIndex", giveHandle);
    EXPECT_FALSE(GetDevice(nullptr, 0, &device));
    EXPECT_TRUE(GetDevice(&OpenLibrary, 0, &device)) << "by the older name";
    EXPECT_FALSE(GetDevice(&OpenLibrary, 1, &device)) << "a failure, whatever the handle";
    EXPECT_FALSE(GetDevice(&OpenLibrary, 2, &device)) << "no handle, whatever the result";
    Export("nvmlDeviceGetHandleByIndex_v2", [](unsigned int, NvmlDevice*) -> NvmlReturn { return 999; });
    EXPECT_FALSE(GetDevice(&OpenLibrary, 0, &device)) << "a newer name that fails is not replaced by the older one";
}

TEST(ArchitectureNameTest, NamesEveryKnownCodeAndNoOther) {
    const std::string names[] = {"Unknown", "Unknown", "Kepler", "Maxwell", "Pascal",    "Volta",
                                 "Turing",  "Ampere",  "Ada",    "Hopper",  "Blackwell", "Unknown"};
    for (unsigned int code = 0; code < std::size(names); ++code) EXPECT_EQ(ArchitectureName(code), names[code]);
    EXPECT_EQ(ArchitectureName(UINT32_MAX), std::string("Unknown"));
}

TEST(SetClockErrorTest, HasATextForANullMessageOnly) {
    std::string error = "a text of before";
    SetClockError(&error, nullptr);
    EXPECT_EQ(error, "NVML clock operation failed");
    SetClockError(&error, "");
    EXPECT_EQ(error, "");
}

TEST(CountQuerySucceededTest, TakesARoomThatIsTooSmallForAnAnswer) {
    for (NvmlReturn code = 0; code < 1000; ++code) EXPECT_EQ(CountQuerySucceeded(code), code == 0 || code == 7) << code;
}

TEST(MergeProcessMemoryTest, ReadsNoMoreRecordsThanItOffered) {
    // Leaves the second of three records as it was, and reports more records than it was offered.
    const auto overstate = [](NvmlDevice, unsigned int* count, NvmlProcessInfo* processes) -> NvmlReturn {
        for (const unsigned int i : {0U, 2U, 3U}) {
            if (processes != nullptr) processes[i] = {i + 1, 100, 0, 0};
        }
        *count = processes == nullptr ? 3 : 1000000;
        return kNvmlSuccess;
    };
    std::unordered_map<int, uint64_t> processes;
    MergeProcessMemory(overstate, nullptr, processes);
    EXPECT_EQ(processes, (std::unordered_map<int, uint64_t>{{1, 100}, {3, 100}}));
}

TEST(MergeProcessMemoryTest, OffersABufferThatIsZeroInEveryByte) {
    static std::string buffer;
    const auto copyBuffer = [](NvmlDevice, unsigned int* count, NvmlProcessInfo* processes) -> NvmlReturn {
        *count = 3;
        if (processes != nullptr) buffer.assign(reinterpret_cast<const char*>(processes), *count * size_t{32});
        return kNvmlSuccess;
    };
    std::unordered_map<int, uint64_t> processes;
    MergeProcessMemory(copyBuffer, nullptr, processes);
    EXPECT_EQ(buffer, std::string(96, '\0')) << "the gap in each record and the room behind the records too";
}

}  // namespace

extern "C" void* __wrap_dlsym(void* library, const char* name) {
    static_cast<void>(library);
    const auto found = Exports.find(name);
    return found != Exports.end() ? found->second : nullptr;
}
