// What no driver lets a test reach through the public header: the source's own helpers, over a loader that is a table.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "nvml_gpu_monitor.cpp"  // NOLINT(bugprone-suspicious-include): its unnamed namespace is what is tested

namespace {

std::map<std::string, void*> Exports;

/// Stands for an open library; nothing looks into it.
int OpenLibrary = 0;

NvmlReturn NullHandle(unsigned int, NvmlDevice* device) {
    *device = nullptr;
    return kNvmlSuccess;
}

NvmlReturn SomeHandle(unsigned int, NvmlDevice* device) {
    *device = &OpenLibrary;
    return kNvmlSuccess;
}

NvmlReturn RefusedHandle(unsigned int index, NvmlDevice* device) {
    SomeHandle(index, device);
    return 2;
}

void Export(const char* name, HandleByIndexFn entryPoint) {
    Exports[name] = reinterpret_cast<void*>(entryPoint);
}

TEST(GetDeviceTest, NeedsAPlaceALibraryAndAHandle) {
    NvmlDevice device = &OpenLibrary;
    Exports.clear();
    EXPECT_FALSE(GetDevice(&OpenLibrary, 0, nullptr));
    EXPECT_FALSE(GetDevice(nullptr, 0, &device));
    EXPECT_EQ(device, nullptr);
    EXPECT_FALSE(GetDevice(&OpenLibrary, 0, &device)) << "no entry point";

    Export("nvmlDeviceGetHandleByIndex", SomeHandle);
    EXPECT_TRUE(GetDevice(&OpenLibrary, 0, &device)) << "the older name serves";
    Export("nvmlDeviceGetHandleByIndex_v2", NullHandle);
    EXPECT_FALSE(GetDevice(&OpenLibrary, 0, &device)) << "a null handle is none, and the older name is not tried";
    Export("nvmlDeviceGetHandleByIndex_v2", RefusedHandle);
    EXPECT_FALSE(GetDevice(&OpenLibrary, 0, &device));
}

TEST(ArchitectureNameTest, NamesEveryKnownCodeAndNoOther) {
    const std::map<unsigned int, std::string> names = {
        {0, "Unknown"},    {1, "Unknown"},  {2, "Kepler"},          {3, "Maxwell"}, {4, "Pascal"},
        {5, "Volta"},      {6, "Turing"},   {7, "Ampere"},          {8, "Ada"},     {9, "Hopper"},
        {10, "Blackwell"}, {11, "Unknown"}, {UINT32_MAX, "Unknown"}};
    for (const auto& [code, name] : names) EXPECT_EQ(ArchitectureName(code), name) << code;
}

NvmlReturn BoastingProcesses(NvmlDevice, unsigned int* count, NvmlProcessInfo* processes) {
    if (processes == nullptr) {
        *count = 2;
    } else {
        for (unsigned int i = 0; i < *count; ++i) processes[i] = {i + 1, 100, 0, 0};
        *count = 1000000;
    }
    return kNvmlSuccess;
}

TEST(MergeProcessMemoryTest, ReadsNoMoreRecordsThanItOffered) {
    std::unordered_map<int, uint64_t> processes;
    MergeProcessMemory(BoastingProcesses, nullptr, processes);
    EXPECT_EQ(processes, (std::unordered_map<int, uint64_t>{{1, 100}, {2, 100}}));
}

}  // namespace

extern "C" void* __wrap_dlsym(void* library, const char* name) {
    static_cast<void>(library);
    const auto found = Exports.find(name);
    return found != Exports.end() ? found->second : nullptr;
}
