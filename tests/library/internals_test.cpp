// Helpers of the source with inputs that no simulated driver can cause.

#include <gtest/gtest.h>

#include <string>

#include "nvml_gpu_monitor.cpp"  // NOLINT(bugprone-suspicious-include): its unnamed namespace is what is tested

namespace {

/// Its address is the handle of an open library and of a GPU.
int Open = 0;

/// Every entry point of the library. Index 1 fails, and index 2 has no handle.
NvmlReturn GiveHandle(unsigned int index, NvmlDevice* device) {
    *device = index < 2 ? &Open : nullptr;
    return index == 1 ? 999 : kNvmlSuccess;
}

TEST(GetDeviceTest, NeedsAPlaceALibraryAndAHandle) {
    NvmlDevice device = nullptr;
    EXPECT_FALSE(GetDevice(&Open, 0, nullptr));
    EXPECT_FALSE(GetDevice(nullptr, 0, &device));
    EXPECT_TRUE(GetDevice(&Open, 0, &device));
    EXPECT_FALSE(GetDevice(&Open, 1, &device)) << "a failure, whatever the handle";
    EXPECT_FALSE(GetDevice(&Open, 2, &device)) << "no handle, whatever the result";
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

TEST(MergeProcessMemoryTest, OffersAZeroBufferAndReadsNoMoreRecordsThanItOffered) {
    static std::string buffer;
    // Leaves the second of three records as it was, and reports more records than it was offered.
    const auto overstate = [](NvmlDevice, unsigned int* count, NvmlProcessInfo* processes) -> NvmlReturn {
        *count = processes == nullptr ? 3 : 1000000;
        if (processes == nullptr) return kNvmlSuccess;
        buffer.assign(reinterpret_cast<const char*>(processes), 96);
        for (const unsigned int i : {0U, 2U, 3U}) processes[i] = {i + 1, 100, 0, 0};
        return kNvmlSuccess;
    };
    std::unordered_map<int, uint64_t> processes;
    MergeProcessMemory(overstate, nullptr, processes);
    EXPECT_EQ(processes, (std::unordered_map<int, uint64_t>{{1, 100}, {3, 100}}));
    EXPECT_EQ(buffer, std::string(96, '\0')) << "the gap in each record and the room behind the records too";
}

}  // namespace

extern "C" void* __wrap_dlsym(void* /*library*/, const char* /*name*/) {
    return reinterpret_cast<void*>(GiveHandle);
}
