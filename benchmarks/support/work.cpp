#include "work.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "simulated_nvml.h"

namespace {

using simulated_nvml::SimulatedNvml;

std::atomic<bool> bRecording{false};
std::atomic<uint64_t> Allocations{0};
std::atomic<uint64_t> AllocatedBytes{0};

constexpr const char* kLookup = "dlsym ";

bool IsLookup(const std::string& line) {
    return line.rfind(kLookup, 0) == 0;
}

}  // namespace

// What stands between a program and the loader and allocator is one look at a flag while nothing is recorded, and the
// same for both sides of a comparison.

// NOLINTBEGIN(bugprone-reserved-identifier): the linker gives these names.
extern "C" {

void* __real_dlsym(void* library, const char* name);

void* __wrap_dlsym(void* library, const char* name) {
    if (bRecording.load(std::memory_order_relaxed)) SimulatedNvml::Get().OnLookup(name);
    return __real_dlsym(library, name);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

void* operator new(size_t bytes) {
    if (bRecording.load(std::memory_order_relaxed) && !SimulatedNvml::InsideCall()) {
        ++Allocations;
        AllocatedBytes += bytes;
    }
    void* const memory = std::malloc(bytes != 0 ? bytes : 1);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t /*bytes*/) noexcept {
    std::free(memory);
}

Work WorkOf(const std::function<void()>& action) {
    SimulatedNvml& simulator = SimulatedNvml::Get();
    simulator.RecordLog();
    const size_t before = simulator.Log().size();
    Allocations = 0;
    AllocatedBytes = 0;
    bRecording = true;
    action();
    bRecording = false;

    Work work;
    work.Allocations = Allocations;
    work.AllocatedBytes = AllocatedBytes;
    work.Log = simulator.Log();
    work.Log.erase(work.Log.begin(), work.Log.begin() + static_cast<std::ptrdiff_t>(before));
    return work;
}

Work WithoutLookups(Work work) {
    work.Log.erase(std::remove_if(work.Log.begin(), work.Log.end(), IsLookup), work.Log.end());
    return work;
}

void RequireSameWork(const char* what, const Work& measured, const Work& byHand) {
    const auto [left, right] =
        std::mismatch(measured.Log.begin(), measured.Log.end(), byHand.Log.begin(), byHand.Log.end());
    const bool bSameLog = left == measured.Log.end() && right == byHand.Log.end() && !byHand.Log.empty();
    if (bSameLog && measured.Allocations == byHand.Allocations && measured.AllocatedBytes == byHand.AllocatedBytes) {
        return;
    }
    std::fprintf(stderr, "%s does not do what is written by hand.\n", what);
    if (!bSameLog) {
        std::fprintf(stderr, "  step %td: %s, by hand: %s\n", left - measured.Log.begin(),
                     left != measured.Log.end() ? left->c_str() : "nothing",
                     right != byHand.Log.end() ? right->c_str() : "nothing");
    }
    std::fprintf(stderr, "  allocations: %ju of %ju bytes, by hand: %ju of %ju bytes\n",
                 uintmax_t{measured.Allocations}, uintmax_t{measured.AllocatedBytes}, uintmax_t{byHand.Allocations},
                 uintmax_t{byHand.AllocatedBytes});
    std::exit(1);  // NOLINT(concurrency-mt-unsafe): no other thread is left
}
